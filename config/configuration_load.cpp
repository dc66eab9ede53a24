#include "config/configuration_load.h"

#include "base/diagnostics.h"
#include "config/watch_entry.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <streambuf>
#include <sys/resource.h>
#include <sys/stat.h>
#include <utility>

using std::string;

std::string configuration_path = "/etc/vel4_watch_folder.toml";

namespace {

// Bytes. The parser and the matcher of patterns recurse.
constexpr size_t wanted_stack = size_t{64} << 20;

// What a level of recursion in the parser takes at most, bytes; that is with AddressSanitizer.
constexpr size_t level_size = 1200;

// Raises the soft limit of the stack, which the kernel reads as the stack grows, as far as the hard
// limit allows. Returns how much of it the parser may use.
size_t raise_stack_limit() {
    rlimit limit{};
    getrlimit(RLIMIT_STACK, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, std::min<rlim_t>(wanted_stack, limit.rlim_max));
    setrlimit(RLIMIT_STACK, &limit);
    return std::min<rlim_t>(wanted_stack, limit.rlim_cur);
}

// Hands a text to the parser line by line. The parser recurses without a bound. When it asks for a
// line, the stack in use tells how deep it stands. Until it asks for the next one it can go only so
// much deeper: each level consumes one "[", "{" or ".". All of them are counted, also in strings
// and comments.
class LineByLine : public std::streambuf {
public:
    explicit LineByLine(std::istream &file) : file_(file) {}

private:
    static const char *stack_position() {
        return static_cast<const char *>(__builtin_frame_address(0));
    }
    int_type underflow() override {
        if (!std::getline(file_, line_))
            return traits_type::eof();
        const auto levels = static_cast<size_t>(std::count_if(
            line_.begin(), line_.end(), [](char c) { return c == '[' || c == '{' || c == '.'; }));
        // The stack grows to lower addresses.
        const auto used = static_cast<size_t>(start_ - stack_position());
        if (used > limit_ / 8 || levels * level_size > limit_ / 4 * 3)
            throw cpptoml::parse_exception("nested too deep");
        if (!file_.eof())
            line_ += '\n';
        setg(line_.data(), line_.data(), line_.data() + line_.size());
        return traits_type::to_int_type(line_[0]);
    }

    std::istream &file_;
    std::string line_;
    const size_t limit_ = raise_stack_limit();
    const char *const start_ = stack_position();
};

std::shared_ptr<cpptoml::table> parse_file(const string &path) {
    struct stat status {};
    // To open a FIFO would be to wait.
    if (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        throw cpptoml::parse_exception("not a regular file");
    std::ifstream file(path, std::ios::binary);
    return file ? parse_toml(file) : cpptoml::parse_file(path); // which says that it cannot
}

void read_text(const cpptoml::table &table, const char *key, string &text) {
    const auto element = find_element(table, key);
    if (const string *found = string_text(element))
        text = found->substr(0, found->find('\0')); // as every system call takes it
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

// Each table is released when it has been added: the file and the registry need not be in memory as
// a whole at once.
void add_event_tables(cpptoml::table &root) {
    for (auto &[key, slot] : root) {
        const auto element = std::exchange(slot, nullptr);
        if (key.compare(0, 5, "event") != 0 || element == nullptr)
            continue;
        if (key == "event" && element->is_table_array())
            add_event_array(*element->as_table_array());
        else if (element->is_table())
            add_event_table(key, element->as_table());
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

std::shared_ptr<cpptoml::table> parse_toml(std::istream &file) {
    LineByLine lines(file);
    std::istream stream(&lines);
    return cpptoml::parser(stream).parse();
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
    const char *path = configuration_path.c_str();
    try {
        const auto root = parse_file(configuration_path);
        if (root == nullptr)
            diag("%s: did not return anything\n", path);
        else
            add_event_tables(*root);
        return root != nullptr;
    } catch (const cpptoml::parse_exception &error) {
        diag("%s: TOML parse error: %s\n", path, error.what());
    } catch (const std::exception &error) { // no memory
        diag("%s: %s\n", path, error.what());
    }
    return false;
}
