#pragma once

#include "model/FileUrl.h"
#include "model/FilterRule.h"

#include <QByteArray>
#include <QUuid>

#include <optional>
#include <vector>

namespace harbex
{

/// One folder that is watched, with its rules in the order in which they are tried. A plain value, told apart
/// from others by `id` only: the same folder may be watched twice, so there is no equality.
struct WatchedFolder {
    QUuid id = QUuid::createUuid();
    FileUrl url;
    /// What finds the folder again after it was renamed, made when the user picked it; opaque here.
    std::optional<QByteArray> bookmarkData;
    std::vector<FilterRule> rules;
};

} // namespace harbex
