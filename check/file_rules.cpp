#include "check/file_rules.h"

#include "check/key_names.h"
#include "config/regexstate.h"

#include <algorithm>

namespace {

using element = std::shared_ptr<cpptoml::base>;

// The elements of a table in the order of their keys; the table itself keeps none.
std::map<std::string, element> sorted(const cpptoml::table &table) {
    return {table.begin(), table.end()};
}

template<typename T> std::shared_ptr<cpptoml::value<T>> value_of(const element &item) {
    return std::dynamic_pointer_cast<cpptoml::value<T>>(item);
}

const char *kind_of(const element &item) {
    if (item->is_table())
        return "a table";
    if (item->is_table_array())
        return "an array of tables";
    if (item->is_array())
        return "an array";
    if (value_of<std::string>(item) != nullptr)
        return "a string";
    if (value_of<int64_t>(item) != nullptr)
        return "an integer";
    if (value_of<double>(item) != nullptr)
        return "a number";
    return value_of<bool>(item) != nullptr ? "a boolean" : "a date or time";
}

std::string array_item_name(unsigned int index) {
    return "eventarrayitem" + std::to_string(index);
}

bool has_entry_keys(const element &item) {
    const auto table = item->is_table() ? item->as_table() : nullptr;
    return table != nullptr && std::any_of(table->begin(), table->end(), [](const auto &own) {
               return is_entry_key(own.first) || meant_entry_key(own.first) != nullptr;
           });
}

bool is_container(const element &item) {
    return item->is_table() || item->is_table_array();
}

// An event table can be written under another table by mistake: [studio.event1].
void find_nested(const std::string &name, const cpptoml::table &table, findings &list) {
    for (const auto &[key, item] : sorted(table))
        if (is_container(item) && (is_event_name(key) || has_entry_keys(item)))
            add_warning(list, "Section " + in_quotes(name + "." + key) +
                                  ": a table within a table is ignored");
}

void find_ignored(const std::string &key, const element &item, findings &list) {
    if (is_event_name(key)) {
        if (item->is_table_array() && key != "event")
            add_warning(list, "Section " + in_quotes(key) +
                                  ": an array of tables is ignored unless its name is 'event'");
        else if (!is_container(item))
            add_warning(list, "Key " + in_quotes(key) + ": " + kind_of(item) +
                                  " is ignored, an event is a table");
        return;
    }
    if (is_container(item) && (resembles_event_name(key) || has_entry_keys(item)))
        add_warning(list, "Section " + in_quotes(key) +
                              ": ignored, the name of an event table begins with 'event'");
    else if (!is_container(item) && (is_entry_key(key) || meant_entry_key(key) != nullptr))
        add_warning(list, "Key " + in_quotes(key) + ": ignored outside of an event table");
    if (item->is_table())
        find_nested(key, *item->as_table(), list);
}

// The text of "watch path" or "target file".
void find_bad_text(const std::string &name, const cpptoml::table &table, const std::string &key,
                   findings &list) {
    if (!table.contains(key)) {
        add_error(list, about_entry(name) + "no " + in_quotes(key) + ", the section is dropped");
        return;
    }
    const element item = table.get(key);
    const auto text = value_of<std::string>(item);
    if (text == nullptr)
        add_error(list, about_entry(name) + in_quotes(key) + " is " + kind_of(item) +
                            ", not a string, the section is dropped");
    else if (text->get().empty())
        add_error(list, about_entry(name) + in_quotes(key) + " is empty, the section is dropped");
}

void find_bad_pattern(const std::string &name, const std::string &text, findings &list) {
    const RegexState state(text.c_str());
    if (!state.is_ready())
        add_error(list, about_entry(name) + "pattern " + in_quotes(text) +
                            ", the section is dropped: " + state.error);
}

// The parser accepts arrays of one kind only.
bool has_string(const cpptoml::array &items) {
    return !items.get().empty() && value_of<std::string>(items.get().front()) != nullptr;
}

void find_bad_patterns(const std::string &name, const cpptoml::table &table, findings &list) {
    if (!table.contains(match_pattern_key)) {
        add_error(list,
                  about_entry(name) + "no " + in_quotes(match_pattern_key) + ", no file matches");
        return;
    }
    const element item = table.get(match_pattern_key);
    if (const auto text = value_of<std::string>(item))
        find_bad_pattern(name, text->get(), list);
    else if (!item->is_array())
        add_error(list, about_entry(name) + in_quotes(match_pattern_key) + " is " + kind_of(item) +
                            ", not a string or an array of strings, no file matches");
    else if (!has_string(*item->as_array()))
        add_error(list, about_entry(name) + in_quotes(match_pattern_key) +
                            " holds no string, no file matches");
    else
        for (const element &one : *item->as_array())
            find_bad_pattern(name, value_of<std::string>(one)->get(), list);
}

} // namespace

event_tables event_tables_of(const cpptoml::table &root) {
    event_tables result;
    for (const auto &[key, item] : sorted(root)) {
        if (is_event_name(key) && item->is_table())
            result[key] = item->as_table();
        if (key != "event" || !item->is_table_array())
            continue;
        unsigned int index = 0;
        for (const auto &table : *item->as_table_array())
            result[array_item_name(index++)] = table;
    }
    return result;
}

findings file_findings(const cpptoml::table &root) {
    findings list;
    for (const auto &[key, item] : sorted(root)) {
        find_ignored(key, item, list);
        if (key != "event" || !item->is_table_array())
            continue;
        const size_t count = item->as_table_array()->get().size();
        for (unsigned int index = 0; index < count; ++index)
            if (root.contains(array_item_name(index)))
                add_error(list,
                          "Section " + in_quotes(array_item_name(index)) +
                              ": the array 'event' has an entry of that name, one is dropped");
    }
    return list;
}

findings table_findings(const std::string &name, const cpptoml::table &table) {
    findings list;
    find_bad_text(name, table, watch_path_key, list);
    find_bad_patterns(name, table, list);
    find_bad_text(name, table, target_file_key, list);
    for (const auto &[key, item] : sorted(table)) {
        if (const std::string *meant = meant_entry_key(key))
            add_warning(list, about_entry(name) + "unknown key " + in_quotes(key) +
                                  " is ignored, is " + in_quotes(*meant) + " meant?");
        else if (is_container(item) && !is_entry_key(key))
            add_warning(list, "Section " + in_quotes(name + "." + key) +
                                  ": a table within a table is ignored");
    }
    return list;
}
