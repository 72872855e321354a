#pragma once

#include "base/Outcome.h"
#include "model/WatchedFolder.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonValue>
#include <QString>
#include <QStringView>
#include <QUuid>

#include <optional>
#include <vector>

namespace harbex
{

/// Why a text is no list of folders, or a list of folders has no text.
struct JsonError {
    /// One line that says where and what: `[2].rules[0].kind: unknown value "Pictures"`.
    QString description;
};

/// The array or object that a JSON text (UTF-8) consists of. Takes any bytes.
[[nodiscard]] Outcome<QJsonValue, JsonError> parseJson(const QByteArray& text);

/// The JSON of a list of folders: an array of objects whose keys are the names of the records' fields; absent
/// values leave their key out. Fails when a rule's value is no Unicode text (a lone surrogate), which JSON in
/// UTF-8 cannot hold.
[[nodiscard]] Outcome<QJsonArray, JsonError> encodeFolderList(const std::vector<WatchedFolder>& folders);

/// Reads what encodeFolderList() makes. Unknown keys are ignored; the first missing or wrong value fails the
/// whole list. Takes any JSON.
[[nodiscard]] Outcome<std::vector<WatchedFolder>, JsonError> decodeFolderList(const QJsonValue& json);

/// The canonical text of a UUID: 36 characters, upper-case hexadecimal, hyphens, no braces.
[[nodiscard]] QString uuidText(const QUuid& id);

/// Reads that form and no other, in either letter case. The all-zero UUID is one like any other.
[[nodiscard]] std::optional<QUuid> uuidFromText(QStringView text);

} // namespace harbex
