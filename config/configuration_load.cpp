#include "config/configuration_load.h"

#include "base/diagnostics.h"
#include "config/watch_entry.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <utility>

using std::string;

std::string configuration_path = "/etc/vel4_watch_folder.toml";

namespace {

constexpr char event_prefix[] = "event";
constexpr size_t nesting_limit = 5000;

// The parser opens whatever the path leads to, waits for a FIFO, and recurses without a bound.
void refuse_unfit_file(const string &path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return; // the parser reports it
    if (!S_ISREG(status.st_mode))
        throw cpptoml::parse_exception("not a regular file");
    string text(static_cast<size_t>(status.st_size), '\0');
    std::ifstream(path, std::ios::binary).read(text.data(), status.st_size);
    if (nests_too_deep(text))
        throw cpptoml::parse_exception("nested too deep");
}

void read_text(const cpptoml::table &table, const char *key, string &text) {
    const auto element = find_element(table, key);
    if (const string *found = string_text(element))
        text = *found;
}

void read_patterns(const cpptoml::table &table, std::vector<RegexState> &patterns) {
    const auto element = find_element(table, "match pattern");
    if (const string *text = string_text(element))
        patterns.emplace_back(text->c_str());
    else if (element != nullptr && element->is_array())
        for (const auto &item : *element->as_array())
            if (const string *item_text = string_text(item))
                patterns.emplace_back(item_text->c_str());
}

void add_event_array(cpptoml::table_array &tables) {
    diag("table array\n");
    unsigned int index = 0;
    for (auto &slot : tables) {
        const string name = "eventarrayitem" + std::to_string(index++);
        if (const auto table = std::exchange(slot, nullptr))
            add_event_table(name, table);
    }
}

} // namespace

std::shared_ptr<cpptoml::base> find_element(const cpptoml::table &table, const char *key) {
    return table.contains(key) ? table.get(key) : nullptr;
}

const string *string_text(const std::shared_ptr<cpptoml::base> &element) {
    const auto value = std::dynamic_pointer_cast<cpptoml::value<string>>(element);
    return value == nullptr ? nullptr : &value->get();
}

// Never counts too little. In cpptoml, parse_array consumes a "[" and parse_inline_table a "{" for
// each call of itself, and each further table that a key or a section's name makes or enters
// consumes a ".". All of these bytes are counted, within strings and comments too, and none is
// taken off again. Only the release of what was made can go deeper, twice as deep at most: a
// section may enter arrays of tables, two levels for a ".", that another one made.
//
// To start again at a line "[event" or "[[event", also after blanks, is safe. Outside of a value
// the line is the name of a section, which parse() looks up from the root, with no call open.
// Within an array, the one value that goes on over lines besides a string, the parser throws at
// this line: no value begins with "e" (determine_value_type), and an array of scalars that lacks
// its "]" takes the first "[" for it, which its caller then finds followed by "e" or "["
// (eol_or_comment, parse_object_array, parse_inline_table). Only within a multi-line string is the
// line mere text, and parse_string begins one at three equal quotation marks only.
bool nests_too_deep(std::string_view text) {
    constexpr auto none = std::string_view::npos;
    size_t count = 0;
    bool may_be_in_string = false;
    for (size_t begin = 0, end = 0; begin < text.size(); begin = end + 1) {
        end = std::min(text.find('\n', begin), text.size());
        const std::string_view line = text.substr(begin, end - begin);
        const std::string_view word =
            line.substr(std::min(line.find_first_not_of(" \t"), line.size()));
        if (!may_be_in_string && (word.substr(0, 6) == "[event" || word.substr(0, 7) == "[[event"))
            count = 0;
        for (const char c : line)
            count += c == '[' || c == '{' || c == '.' ? 1 : 0;
        if (count > nesting_limit)
            return true;
        if (line.find("\"\"\"") != none || line.find("'''") != none)
            may_be_in_string = true;
    }
    return false;
}

void add_event_table(const string &name, const std::shared_ptr<cpptoml::table> &table) {
    const auto [added, is_new] = configuration.try_emplace(name);
    if (!is_new) {
        diag("Warning: Duplicate section '%s'\n", name.c_str());
        return;
    }
    WatchEntry &entry = added->second;
    entry.name = name;
    read_text(*table, "watch path", entry.watch_path);
    read_patterns(*table, entry.patterns);
    read_text(*table, "target file", entry.target_file);
    if (entry.is_valid()) {
        diag("Added section '%s'\n", name.c_str());
        return;
    }
    diag("Warning: Invalid section '%s'\n", name.c_str());
    entry.print(nullptr);
    auto i = configuration.find(name);
    assert(i != configuration.end());
    configuration.erase(i);
}

bool load_configuration() {
    struct stat status {};
    if (lstat(configuration_path.c_str(), &status) != 0) {
        diag("%s: %s\n", configuration_path.c_str(), strerror(errno));
        return false;
    }
    std::shared_ptr<cpptoml::table> root;
    try {
        refuse_unfit_file(configuration_path);
        root = cpptoml::parse_file(configuration_path);
    } catch (const cpptoml::parse_exception &error) {
        diag("%s: TOML parse error: %s\n", configuration_path.c_str(), error.what());
        return false;
    }
    if (root == nullptr) {
        diag("%s: did not return anything\n", configuration_path.c_str());
        return false;
    }
    for (auto &[key, slot] : *root) {
        // Each table is released when it has been added: the file and the registry need not be in
        // memory as a whole at once.
        const auto element = std::exchange(slot, nullptr);
        if (key.compare(0, strlen(event_prefix), event_prefix) != 0 || element == nullptr)
            continue;
        if (key == event_prefix && element->is_table_array())
            add_event_array(*element->as_table_array());
        else if (element->is_table())
            add_event_table(key, element->as_table());
    }
    return true;
}

bool try_load_configuration() {
    try {
        return load_configuration();
    } catch (const std::exception &error) {
        diag("%s: %s\n", configuration_path.c_str(), error.what());
        return false;
    }
}
