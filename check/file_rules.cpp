#include "check/file_rules.h"

#include "check/finding.h"
#include "config/configuration_load.h"
#include "config/regexstate.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>

namespace {

using std::string;

constexpr char pattern_key[] = "match pattern";
constexpr const char *keys[] = {"watch path", pattern_key, "target file"};

// What a path has only where somebody takes it for a shell's, a list or a quotation.
constexpr char odd_path[] = R"(^~|\$|^\w+:|\\|\*|^["'\s]|["'\s]$|\s/|[,;]\s*/|\xC2\xA0)";

// The extensions of media files, listed in any notation: "*.mxf,*.mov", "[.]{mxf,mov}$", "mxf".
// Without backtracking: a group that is tried again takes stack for each item of the list.
constexpr char extension_list[] =
    R"(^\s*([\]\[^$*.\\(){}"'/]*)(\b(mxf|mov|mp[234g]|mpe?g|m[124o]v|m4a|m?2?ts|avi|mkv|webm|wmv|)"
    R"(wav|bwf|aiff?|flac|ac3|[gl]xf|dv|jpe?g|png|tiff?|tga|dpx|gif|xml|txt|srt|stl)\b))"
    R"(((?1)[\s,;|]+(?1)(?2))*+(?1)\s*$)";

constexpr char half_uploads[] = "matches half uploads too, such as show.mxf.filepart";
constexpr char of_a_shell[] = "is a shell's, not a regular expression";

constexpr const char *odd_patterns[][2] = {
    {R"([\x01-\x1f]|\xC2\xA0)", "has a control character or a non-breaking space in it"},
    {"/", "has a slash, and only the name of a file is matched"},
    {R"(\$[ ,;])", "matches nothing: several patterns are an array, ['...', '...']"},
    // "news*.mxf", "clip?.mxf", "news.{mxf,mov}"; not "[0-9]*", ".*", "\d*" or "x{2}".
    {R"((^|(^|[^\\])[\w -])\*|[\w? -]\?\.\w|(?<!\\\w)\{\D)", of_a_shell},
    {R"((\.|\[\.\])(\w+|\([\w|]+\))$)", half_uploads},
};

// What a shell's pattern is as a regular expression, replaced in this order.
constexpr const char *shell_signs[][2] = {
    {"[.]", "."}, {".*", "*"}, {"\\", ""}, {"^", ""},   {"$", ""},  {".", "[.]"}, {"?", "."},
    {"*", ".*"},  {"{", "("},  {"}", ")"}, {", ", "|"}, {",", "|"}, {";", "|"}};

// In the source line that the parser refuses, or in its message in the line below.
constexpr const char *syntax_mistakes[][2] = {
    {"^(\xEF\xBB\xBF|\xFF\xFE|\xFE\xFF)", "a byte order mark is in front: save it as plain UTF-8"},
    {"\xC2\xA0", "type a plain blank in place of the non-breaking space"},
    {"\xE2\x80[\x98-\x9F]", "type plain quotes, \" or ', in place of typographic ones"},
    {R"(^\s*[\w"' -]+:)", "write = in place of the colon"},
    {R"(^[^=\n]*=[^'\n]*'[^'\n]*'[^',\n]+'[^'\n]*\n)", "use double quotes around an apostrophe"},
    {R"(\n.*contain (whites|#))", "put quotes around a key with blanks, # before a comment"},
    {R"(\n.*(already|Redefinition))", "give each section or key its own name, patterns an array"},
    {R"(\n.*(contain|table))", "the name of a section stands within [ and ]"},
    {R"(\n.*( key|missing name|literal|a '='))", "a quote, a [, the = or a # is missing"},
    {R"(\n.*(parse|boolean|Malformed|zeros|digits))", "put quotes around the value"},
    {R"(\n.*(unicode|escape))", R"(put a text with a backslash in single quotes, as in '\.mxf$')"},
    {R"(\n.*(homogeneous|in array))", "put quotes around each pattern of an array"},
    {R"(\n.*(trailing character|ed array))", "a comma, ] or # is missing, here or a line before"},
};

// What a list of extensions means, as a pattern. Stores what it does instead, "" if that is the
// same.
string meant_by_list(const RegexState &pattern, string &effect) {
    string words = pattern.pattern, meant;
    std::replace_if(
        words.begin(), words.end(), [](unsigned char c) { return !isalnum(c); }, ' ');
    std::istringstream stream(words);
    string word;
    while (stream >> word)
        meant += (meant.empty() ? "" : "|") + word;
    const string name = "show." + word;
    if (!pattern.matches(name.c_str()))
        effect = "does not match " + name;
    else if (pattern.matches((name + ".filepart").c_str()))
        effect = half_uploads;
    return "[.]" + (meant.find('|') == string::npos ? meant : "(" + meant + ")") + "$";
}

string from_shell(string text) {
    for (const auto &[sign, meaning] : shell_signs)
        replace_all(text, sign, meaning);
    if (text.find('|') != string::npos)
        return "^(" + text + ")$";
    return text.compare(0, 2, ".*") == 0 && text.size() > 2 ? text.substr(2) + "$"
                                                            : "^" + text + "$";
}

void judge_pattern(const string &entry, const string &text) {
    const RegexState pattern(text.c_str());
    const string about = "pattern '" + text + "' ";
    if (!pattern.is_ready())
        report(error, entry, about + "does not compile: " + pattern.error);
    string effect = advice_for(text, odd_patterns), meant;
    if (RegexState(extension_list).matches(text.c_str()))
        meant = meant_by_list(pattern, effect);
    else if (effect == of_a_shell)
        meant = from_shell(text);
    else if (effect == half_uploads)
        meant = text + "$";
    const bool is_known = !meant.empty() && RegexState(meant.c_str()).is_ready();
    if (!effect.empty())
        report(warning, entry, about + effect + (is_known ? ": is '" + meant + "' meant?" : ""));
}

// The texts that the loader takes.
std::vector<string> texts_of(const cpptoml::table &table, const char *key) {
    if (const string *text = string_text(find_element(table, key)))
        return {*text};
    const auto array = table.get_array_of<string>(key);
    return array && key == pattern_key ? *array : std::vector<string>();
}

void judge_table(const string &entry, const cpptoml::table &table) {
    for (const auto &[key, item] : table)
        if (item->is_table() || item->is_table_array())
            report(error, entry,
                   "the dot of [" + entry + "." + key + "] is ignored: write '_' for it");
        else if (std::find(std::begin(keys), std::end(keys), key) == std::end(keys))
            report(warning, entry, "key '" + key + "' is ignored: it is none of the three keys");
    for (const char *key : keys) {
        const auto texts = texts_of(table, key);
        if (texts.empty() || (key != pattern_key && texts[0].empty()))
            report(error, entry, string("'") + key + "' is missing, empty, or no text in quotes");
        for (const string &text : texts)
            if (key == pattern_key)
                judge_pattern(entry, text);
            else if (RegexState(odd_path).matches(text.c_str()))
                report(warning, entry,
                       "'" + text + "': blanks, quotes and ~$*,;:\\ stand for themselves");
    }
}

} // namespace

void judge_file(const cpptoml::table &root) {
    for (const auto &[name, item] : root) {
        size_t index = 0;
        if (name == "event" && item->is_table_array())
            for (const auto &table : *item->as_table_array())
                judge_table("eventarrayitem" + std::to_string(index++), *table);
        else if (name.compare(0, 5, "event") == 0 && item->is_table())
            judge_table(name, *item->as_table());
        else
            report(warning, "",
                   "'" + name +
                       "' is ignored: entries are [event...], in lower case, or [[event]]");
    }
}

void explain_syntax(const string &path, const string &message) {
    std::ifstream lines(path);
    string line;
    const size_t number = std::strtoul(message.c_str() + message.rfind(' ') + 1, nullptr, 10);
    for (size_t n = 0; n < number; ++n)
        std::getline(lines, line);
    const string advice = advice_for(line + "\n" + message, syntax_mistakes);
    line = number == 0 ? "" : " '" + line.substr(0, 200) + "'";
    report(error, "", message + line + (advice.empty() ? "" : ": " + advice));
}
