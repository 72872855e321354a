#include "support/RuleModel.h"

#include <algorithm>
#include <cwctype>
#include <map>
#include <set>

namespace harbex::test
{

namespace
{

using Text = std::u32string;

/// Returns the code point at `name[at]` and its length in bytes. Empty for invalid UTF-8.
std::optional<std::pair<char32_t, size_t>> codePoint(const std::string& name, size_t at)
{
    const auto byte = [&](size_t index) -> unsigned {
        return index < name.size() ? static_cast<unsigned char>(name[index]) : 0;
    };
    const unsigned first = byte(at);
    if (first < 0x80) return {{first, 1}};

    if (first < 0xc0 || first >= 0xf8) return {};
    const size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    const char32_t smallest = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
    char32_t value = first & (0x7fU >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xc0) != 0x80) return {};
        value = value << 6 | (byte(at + i) & 0x3f);
    }
    const bool isSurrogate = value >= 0xd800 && value <= 0xdfff;
    if (value < smallest || value > 0x10ffff || isSurrogate) return {};
    return {{value, length}};
}

Text decoded(const std::string& bytes)
{
    Text text;
    for (size_t at = 0; at < bytes.size();) {
        const auto [value, length] = codePoint(bytes, at).value_or(std::pair<char32_t, size_t>(0xfffd, 1));
        text.push_back(value);
        at += length;
    }
    return text;
}

/// Returns `text` with every known pair of letter and accent composed.
Text composed(const Text& text)
{
    Text result;
    for (const char32_t c : text) {
        const auto known = std::ranges::find_if(composedLetters(), [&](const ComposedLetter& letter) {
            return result.ends_with(letter.letter) && c == letter.accent;
        });
        if (known == composedLetters().end())
            result.push_back(c);
        else
            result.back() = known->composed;
    }
    return result;
}

Text lowerCased(Text text)
{
    for (char32_t& c : text)
        c = static_cast<char32_t>(std::towlower(static_cast<wint_t>(c)));
    return text;
}

bool compare(RuleOperator operatorType, const Text& part, const Text& value)
{
    if (operatorType == RuleOperator::isEqual) return part == value;
    return lowerCased(part).find(lowerCased(value)) != Text::npos;
}

/// Returns the part of the name before its first dot or after its last dot. Dots at the ends and repeated
/// dots do not separate parts.
std::optional<Text> namePart(const std::string& name, RuleField field)
{
    const size_t begin = name.find_first_not_of('.');
    if (begin == std::string::npos) return {};
    if (field == RuleField::name) return composed(decoded(name.substr(begin, name.find('.', begin) - begin)));
    const std::string trimmed = name.substr(0, name.find_last_not_of('.') + 1);
    // npos + 1 is 0: there is no dot.
    return composed(decoded(trimmed.substr(trimmed.rfind('.') + 1)));
}

bool passesNameFilter(const std::string& name, const FilterRule& rule)
{
    if (!rule.destination) return false;
    if (rule.value.isEmpty() || rule.field == RuleField::kind) return true;
    const std::optional<Text> part = namePart(name, rule.field);
    return part && compare(rule.operatorType, *part, composed(rule.value.toStdU32String()));
}

/// In lower case.
const std::map<RuleKind, std::set<Text>> extensions = {
    {RuleKind::image,
     {U"jpg", U"jpeg", U"png", U"gif", U"heic", U"heif", U"webp", U"bmp", U"tif", U"tiff", U"avif"}},
    {RuleKind::document, {U"pdf", U"doc", U"docx", U"xls", U"xlsx", U"ppt", U"pptx", U"txt", U"rtf"}},
    {RuleKind::video, {U"mp4", U"mov", U"avi", U"mkv", U"flv", U"wmv", U"webm"}},
    {RuleKind::audio, {U"mp3", U"wav", U"aac", U"flac", U"ogg", U"m4a", U"opus", U"wma", U"alac", U"dsd"}},
    {RuleKind::application, {U"app", U"exe"}},
};

bool matchesEntry(const std::string& name, std::optional<bool> isDirectory, const FilterRule& rule)
{
    const Text extension = lowerCased(composed(decoded(modelPathExtension(name))));
    if (extension == U"download" || extension == U"crdownload" || extension == U"part" || extension == U"tmp")
        return false;
    switch (rule.field) {
    case RuleField::name:
        return true;
    case RuleField::fileExtension:
        return extension == composed(rule.value.toStdU32String());
    case RuleField::kind:
        break;
    }
    return rule.kind == RuleKind::folder ? isDirectory == true : extensions.at(rule.kind).contains(extension);
}

} // namespace

ModelDecision decide(const std::string& name, std::optional<bool> isDirectory, const FilterRule& rule)
{
    return {passesNameFilter(name, rule), matchesEntry(name, isDirectory, rule)};
}

std::string modelPathExtension(const std::string& name)
{
    const size_t dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 ? std::string() : name.substr(dot + 1);
}

const std::vector<ComposedLetter>& composedLetters()
{
    static const std::vector<ComposedLetter> letters = {
        {U'é', U'e', 0x301}, {U'É', U'E', 0x301}, {U'ä', U'a', 0x308}, {U'Ä', U'A', 0x308},
        {U'ñ', U'n', 0x303}, {U'Ñ', U'N', 0x303}, {U'ç', U'c', 0x327}, {U'й', U'и', 0x306},
        {U'Й', U'И', 0x306}, {U'ö', U'o', 0x308}, {U'Ö', U'O', 0x308}, {U'å', U'a', 0x30a},
        {U'Å', U'A', 0x30a}, {U'Ç', U'C', 0x327},
    };
    return letters;
}

} // namespace harbex::test
