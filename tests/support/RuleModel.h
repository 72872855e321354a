#pragma once

#include "model/FilterRule.h"

#include <optional>
#include <string>
#include <vector>

namespace harbex::test
{

/// Decision of a rule about an entry.
struct ModelDecision {
    bool passesNameFilter = false;
    /// Result of the second stage, independent of the first.
    bool matches = false;

    [[nodiscard]] bool isTaken() const { return passesNameFilter && matches; }
};

/// A second implementation of the rules, for comparison. It uses no code of the engine: it works on code
/// points instead of QString, with its own UTF-8 decoder, list of extensions and splitting of names. `name`
/// is raw bytes. `isDirectory` is empty if it is unknown.
///
/// Its Unicode support is small. Each invalid byte becomes one U+FFFD. Lower-casing uses the C library, one
/// code point at a time. It composes only the letters of composedLetters().
[[nodiscard]] ModelDecision decide(const std::string& name, std::optional<bool> isDirectory,
                                   const FilterRule& rule);

/// Returns the text after the last dot of a name. A dot at the beginning of the name does not count. Raw
/// bytes.
[[nodiscard]] std::string modelPathExtension(const std::string& name);

/// A letter with an accent, in composed and decomposed form.
struct ComposedLetter {
    char32_t composed;
    char32_t letter;
    char32_t accent;
};

/// Returns the letters that the model composes.
[[nodiscard]] const std::vector<ComposedLetter>& composedLetters();

} // namespace harbex::test
