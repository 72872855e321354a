#pragma once

#include "model/FileUrl.h"
#include "model/FilterRule.h"

#include <QByteArray>
#include <QUuid>

#include <optional>
#include <vector>

namespace harbex
{

/// One watched folder with its rules in the order of evaluation. `id` is the only identity, because two
/// records can have the same URL. A plain value without equality.
struct WatchedFolder {
    QUuid id = QUuid::createUuid();
    FileUrl url;
    /// Opaque bookmark, created when the user picks the folder. Finds it again after a rename or move.
    std::optional<QByteArray> bookmarkData;
    std::vector<FilterRule> rules;
};

} // namespace harbex
