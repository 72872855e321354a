#pragma once

#include "model/FilterRule.h"

#include <optional>
#include <string>
#include <vector>

namespace harbex::test
{

/// What a rule decides about an entry.
struct ModelDecision {
    bool passesNameFilter = false;
    /// The answer of the second stage alone, whatever the first says.
    bool matches = false;

    [[nodiscard]] bool isTaken() const { return passesNameFilter && matches; }
};

/// The whole decision, worked out a second time without any of the engine's code: over code points instead of
/// QString, with its own UTF-8, its own list of extensions and its own idea of where a name is split. `name`
/// is raw bytes; `isDirectory` is absent when it could not be read.
///
/// Its knowledge of Unicode is small: each byte that is no UTF-8 counts as one U+FFFD, lower-casing is that
/// of the C library one letter at a time, and the only accents it composes are those of composedLetters().
[[nodiscard]] ModelDecision decide(const std::string& name, std::optional<bool> isDirectory,
                                   const FilterRule& rule);

/// The extension of a name in raw bytes: what follows the last dot. A dot that leads the name begins none.
[[nodiscard]] std::string modelPathExtension(const std::string& name);

/// A letter with an accent in its two forms.
struct ComposedLetter {
    char32_t composed;
    char32_t letter;
    char32_t accent;
};

/// The letters with an accent that the model knows.
[[nodiscard]] const std::vector<ComposedLetter>& composedLetters();

} // namespace harbex::test
