#include "check/file_rules.h"

#include "base/diagnostics.h"
#include "check/finding.h"
#include "config/configuration_load.h"
#include "config/regexstate.h"

#include <algorithm>
#include <map>
#include <regex>
#include <sstream>

namespace {

using element = std::shared_ptr<cpptoml::base>;

constexpr char example[] = "  [event_news]\n"
                           "  \"watch path\" = \"/mnt/main/Upload/News\"\n"
                           "  \"match pattern\" = \"[.]mxf$\"\n"
                           "  \"target file\" = \"/mnt/main/Play/news.mxf\"\n";

constexpr char watch_key[] = "watch path";
constexpr char pattern_key[] = "match pattern";
constexpr char target_key[] = "target file";

// std::regex recurses for each character.
constexpr size_t longest_judged = 200;

// The elements of a table in the order of their keys; the table itself keeps none.
std::map<std::string, element> sorted(const cpptoml::table &table) {
    return {table.begin(), table.end()};
}

bool is_event_name(const std::string &name) {
    return name.compare(0, 5, "event") == 0;
}

bool is_container(const element &item) {
    return item->is_table() || item->is_table_array();
}

// [event.news] makes a table "event" that holds only tables.
bool has_only_tables(const cpptoml::table &table) {
    return !table.empty() && std::all_of(table.begin(), table.end(), [](const auto &item) {
        return is_container(item.second);
    });
}

void find_nested_tables(const std::string &name, const cpptoml::table &outer) {
    const char *event = is_event_name(name) ? "" : "event_";
    for (const auto &[key, inner] : sorted(outer))
        if (is_container(inner))
            report(error, nullptr, "Section [%s.%s] is ignored because of its dot: write [%s%s_%s]",
                   name.c_str(), key.c_str(), event, name.c_str(), key.c_str());
}

void judge_path(const char *entry, const cpptoml::table &table, const char *key) {
    const element item = find_element(table, key);
    const std::string *text = string_text(item);
    const char *wrong = item == nullptr   ? "is missing"
                        : text == nullptr ? "is not one text in quotes"
                        : text->empty()   ? "is empty"
                                          : nullptr;
    if (wrong != nullptr)
        report(error, entry, "'%s' %s, the section is dropped", key, wrong);
}

// Patterns that are probably not what was meant: as a whole they look like this, do that, and may
// stand for another.
constexpr struct {
    const char *looks, *effect, *meant;
} oddities[] = {
    {R"(.*\$[ ,;].*)", "matches nothing: several patterns are an array, ['...', '...']", ""},
    {".*/.*", "has a slash, and only the name of a file is matched", ""},
    {"[^]*[\x01-\x1f][^]*", "has a control character: a backslash needs single quotes", ""},
    {R"(\^(\[\.\]|\\\.)(.+))", "matches hidden files, which are never taken", ": is '^$2' meant?"},
    {R"((.*?)(\[\.\]|\\?\.)(\w+|\([\w|]+\)))",
     "matches half uploads too, such as show.mxf.filepart", ": is '$1[.]$3$$' meant?"},
};

std::string from_shell(std::string text) {
    for (const auto &[shell, meant] :
         {std::pair(R"([\^$\\])", ""), {R"(\[?\.\]?)", "[.]"}, {R"(\*)", ".*"}, {R"(\?)", "."}})
        text = std::regex_replace(text, std::regex(shell), meant);
    return text.compare(0, 2, ".*") == 0 ? text.substr(2) + "$" : "^" + text + "$";
}

// What an odd pattern does and what was probably meant.
void find_odd_pattern(const char *entry, const std::string &text) {
    // "news*.mxf", "*.mxf", "clip?.mxf"; not "[0-9]*", ".*" or "\d*".
    static const std::regex shell(R"((^|(^|[^\\])[\w -])\*|[\w -]\?\.\w)");
    if (std::regex_search(text, shell)) {
        report(warning, entry,
               "pattern '%s' is a shell's, not a regular expression: is '%s' meant?", text.c_str(),
               from_shell(text).c_str());
        return;
    }
    for (const auto &[looks, effect, meant] : oddities) {
        if (!std::regex_match(text, std::regex(looks)))
            continue;
        report(warning, entry, "pattern '%s' %s%s", text.c_str(), effect,
               std::regex_replace(text, std::regex(looks), meant).c_str());
        return;
    }
}

void judge_patterns(const char *entry, const cpptoml::table &table) {
    const element item = find_element(table, pattern_key);
    std::vector<element> all = {item};
    if (item != nullptr && item->is_array())
        all = item->as_array()->get();
    bool has_pattern = false;
    for (const element &one : all) {
        const std::string *text = string_text(one);
        if (text == nullptr)
            continue;
        has_pattern = true;
        const RegexState state(text->c_str());
        if (!state.is_ready())
            report(error, entry, "pattern '%s', the section is dropped: %s", text->c_str(),
                   state.error.c_str());
        if (text->size() <= longest_judged)
            find_odd_pattern(entry, *text);
    }
    if (!has_pattern)
        report(error, entry, "%s '%s', no file is ever delivered",
               item == nullptr ? "no" : "no text in quotes in", pattern_key);
}

// Reports everything that the loader does not make an entry of, and returns the rest by the names
// of the entries.
std::map<std::string, element> find_event_tables(const cpptoml::table &root) {
    std::map<std::string, element> tables;
    for (const auto &[key, item] : sorted(root)) {
        const char *name = key.c_str();
        if (key == "event" && item->is_table_array()) {
            for (const auto &table : *item->as_table_array())
                tables["eventarrayitem" + std::to_string(tables.size())] = table;
        } else if (is_event_name(key) && item->is_table()) {
            if (!tables.emplace(key, item).second)
                report(error, name, "[[event]] has an entry of that name, one of them is dropped");
        } else if (item->is_table_array()) {
            report(warning, nullptr, "Section [[%s]] is ignored, only [[event]] is read", name);
        } else if (!item->is_table()) {
            report(warning, nullptr, "Key '%s' is ignored, it stands in no section", name);
        } else if (!has_only_tables(*item->as_table())) {
            report(warning, nullptr,
                   "Section [%s] is ignored, its name must begin with 'event', in lower case",
                   name);
        }
    }
    return tables;
}

void judge_table(const char *entry, const cpptoml::table &table) {
    judge_path(entry, table, watch_key);
    judge_patterns(entry, table);
    judge_path(entry, table, target_key);
    for (const auto &[key, item] : sorted(table))
        if (key != watch_key && key != pattern_key && key != target_key && !is_container(item))
            report(warning, entry, "key '%s' is ignored, the keys are '%s', '%s' and '%s'",
                   key.c_str(), watch_key, pattern_key, target_key);
}

// What the parser's messages mean in practice, and what to do.
constexpr char quotes[] = "put quotes around the value";
constexpr char one_kind[] = "an array has values of one kind: put quotes around each pattern";
constexpr struct {
    const char *message, *hint;
} hints[] = {
    {"cannot contain whitespace", "put quotes around a key with blanks, and a # before a comment"},
    {"parse value type", quotes},
    {"boolean value", quotes},
    {"Malformed number", quotes},
    {"escape sequence", "put a text with a backslash in single quotes, as in '\\.mxf$'"},
    {"homogeneous", one_kind},
    {"Unexpected character in array", one_kind},
    {"trailing character",
     "a comma or ] is missing in the line before, or something follows a value"},
    {"string literal", "the closing quote is missing"},
    {"follow after a '='", "a line is a [section], a key = value, or a # comment"},
    {"Redefinition", "give each section a name of its own"},
};

const char *hint_for(const std::string &text, const std::string &line, const std::string &message) {
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0 || text.compare(0, 2, "\xFF\xFE") == 0)
        return "it begins with a byte order mark, save it as plain UTF-8";
    if (line.find("\xE2\x80") != std::string::npos)
        return "type plain quotes, \" or ', in place of typographic ones";
    for (const auto &[seen, hint] : hints)
        if (message.find(seen) != std::string::npos)
            return hint;
    return "";
}

} // namespace

void judge_file(const char *path, const cpptoml::table &root) {
    for (const auto &[name, item] : sorted(root))
        if (item->is_table())
            find_nested_tables(name, *item->as_table());
    const auto tables = find_event_tables(root);
    if (tables.empty()) {
        report(error, nullptr, "File '%s' has no section of an entry, such as:", path);
        diag("%s", example);
    }
    for (const auto &[name, table] : tables)
        if (!has_only_tables(*table->as_table()))
            judge_table(name.c_str(), *table->as_table());
}

void explain_syntax(const std::string &path, const std::string &text, const std::string &message) {
    std::istringstream lines(text);
    std::string line;
    const size_t number = std::strtoul(message.c_str() + message.rfind(' '), nullptr, 10);
    for (size_t n = 0; n < number; ++n)
        std::getline(lines, line);
    if (number > 0)
        diag("  line %zu: %s\n", number, line.c_str());
    const char *hint = hint_for(text, line, message);
    report(error, nullptr, "File '%s' cannot be loaded%s%s", path.c_str(),
           *hint == '\0' ? "" : ": ", hint);
}
