#include "support/RuleModel.h"

#include <QList>

#include <cwctype>
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

    size_t length = 0;
    char32_t value = 0;
    char32_t smallest = 0;
    if (first >= 0xc0 && first < 0xe0) {
        length = 2, value = first & 0x1f, smallest = 0x80;
    } else if (first >= 0xe0 && first < 0xf0) {
        length = 3, value = first & 0x0f, smallest = 0x800;
    } else if (first >= 0xf0 && first < 0xf8) {
        length = 4, value = first & 0x07, smallest = 0x10000;
    } else {
        return {};
    }
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

Text decoded(const QString& text)
{
    const QList<uint> codePoints = text.toUcs4();
    return Text(codePoints.begin(), codePoints.end());
}

/// Returns `text` with every known pair of letter and accent composed.
Text composed(const Text& text)
{
    Text result;
    for (const char32_t c : text) {
        bool joined = false;
        for (const ComposedLetter& known : composedLetters()) {
            if (result.empty() || result.back() != known.letter || c != known.accent) continue;
            result.back() = known.composed;
            joined = true;
            break;
        }
        if (!joined) result.push_back(c);
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
    return part && compare(rule.operatorType, *part, composed(decoded(rule.value)));
}

const std::set<Text>& extensionsOf(RuleKind kind)
{
    static const std::set<Text> image = {U"jpg",  U"jpeg", U"png", U"gif",  U"heic", U"heif",
                                         U"webp", U"bmp",  U"tif", U"tiff", U"avif"};
    static const std::set<Text> document = {U"pdf", U"doc",  U"docx", U"xls", U"xlsx",
                                            U"ppt", U"pptx", U"txt",  U"rtf"};
    static const std::set<Text> video = {U"mp4", U"mov", U"avi", U"mkv", U"flv", U"wmv", U"webm"};
    static const std::set<Text> audio = {U"mp3", U"wav",  U"aac", U"flac", U"ogg",
                                         U"m4a", U"opus", U"wma", U"alac", U"dsd"};
    static const std::set<Text> application = {U"app", U"exe"};
    static const std::set<Text> none;
    switch (kind) {
    case RuleKind::image:
        return image;
    case RuleKind::document:
        return document;
    case RuleKind::video:
        return video;
    case RuleKind::audio:
        return audio;
    case RuleKind::application:
        return application;
    case RuleKind::folder:
        break;
    }
    return none;
}

bool matchesEntry(const std::string& name, std::optional<bool> isDirectory, const FilterRule& rule)
{
    const Text extension = lowerCased(composed(decoded(modelPathExtension(name))));
    if (extension == U"download" || extension == U"crdownload" || extension == U"part" || extension == U"tmp")
        return false;
    switch (rule.field) {
    case RuleField::name:
        return true;
    case RuleField::fileExtension:
        return extension == composed(decoded(rule.value));
    case RuleField::kind:
        break;
    }
    return rule.kind == RuleKind::folder ? isDirectory == true : extensionsOf(rule.kind).contains(extension);
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
