#include "config/configuration_load.h"

#include "base/diagnostics.h"
#include "config/toml_guard.h"
#include "config/watch_entry.h"

#include <cassert>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>
#include <utility>

using std::string;

std::string configuration_path = "/etc/vel4_watch_folder.toml";

namespace {

constexpr char event_prefix[] = "event";

std::shared_ptr<cpptoml::base> find_element(const cpptoml::table &table, const char *key) {
    try {
        return table.get(key);
    } catch (const std::out_of_range &) {
        return nullptr;
    }
}

// The text of a string element; null for any other kind.
const string *string_text(const std::shared_ptr<cpptoml::base> &element) {
    const auto value = std::dynamic_pointer_cast<cpptoml::value<string>>(element);
    return value == nullptr ? nullptr : &value->get();
}

void read_text(const cpptoml::table &table, const char *key, string &text) {
    const auto element = find_element(table, key);
    if (const string *found = string_text(element))
        text = *found;
}

void read_patterns(const cpptoml::table &table, std::vector<RegexState> &patterns) {
    const auto element = find_element(table, "match pattern");
    if (element == nullptr)
        return;
    if (const string *text = string_text(element))
        patterns.emplace_back(text->c_str());
    else if (element->is_array())
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

void add_event_table(const string &name, const std::shared_ptr<cpptoml::table> &table) {
    if (configuration.find(name) != configuration.end()) {
        diag("Warning: Duplicate section '%s'\n", name.c_str());
        return;
    }
    WatchEntry &entry = configuration[name];
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
        refuse_unfit_toml(configuration_path);
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
