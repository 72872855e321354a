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

// Pure functions. Thread-safe.

/// Describes why a folder list could not be decoded or encoded.
struct JsonError {
    /// One line with position and reason: `[2].rules[0].kind: unknown value "Pictures"`.
    QString description;
};

/// Parses a JSON text (UTF-8) into an array or object. `text` can be any bytes; fails if they are no JSON.
[[nodiscard]] Outcome<QJsonValue, JsonError> parseJson(const QByteArray& text);

/// Returns a list of folders as JSON: an array of objects whose keys are the names of the members. Absent
/// values have no key. Fails if a rule's value contains a lone surrogate, which UTF-8 cannot encode.
[[nodiscard]] Outcome<QJsonArray, JsonError> encodeFolderList(const std::vector<WatchedFolder>& folders);

/// Decodes the format of encodeFolderList(). `json` can be any JSON. Ignores unknown keys. Fails at the first
/// missing or wrong value.
[[nodiscard]] Outcome<std::vector<WatchedFolder>, JsonError> decodeFolderList(const QJsonValue& json);

/// Returns the stored text of a UUID: 36 characters, upper-case hexadecimal, hyphens, no braces.
[[nodiscard]] QString uuidText(const QUuid& id);

/// Parses exactly the form of uuidText(), in upper or lower case. The all-zero UUID is valid. Returns nullopt
/// for other texts.
[[nodiscard]] std::optional<QUuid> uuidFromText(QStringView text);

} // namespace harbex
