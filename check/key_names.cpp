#include "check/key_names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <vector>

namespace {

constexpr char event_prefix[] = "event";
constexpr size_t prefix_length = sizeof(event_prefix) - 1;

const std::array<const std::string *, 3> entry_keys = {&watch_path_key, &match_pattern_key,
                                                       &target_file_key};

// Letters and digits only, in lower case: "Watch_Path" is "watchpath".
std::string bare(const std::string &text) {
    std::string result;
    for (const char c : text)
        if (isalnum(static_cast<unsigned char>(c)) != 0)
            result += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return result;
}

// How many letters have to be changed, added, removed or swapped with their neighbour.
size_t distance(const std::string &a, const std::string &b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                d[i][j] = i + j;
                continue;
            }
            const size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

// "watch folder" and "target" are, the one by its first word, the other as a whole, near a key.
bool is_near(const std::string &key, const std::string &known) {
    const std::string text = bare(key);
    const std::string first_word = known.substr(0, known.find(' '));
    const std::string last_word = known.substr(known.find(' ') + 1);
    return text.compare(0, first_word.size(), first_word) == 0 || text == last_word ||
           text == last_word + "s" || distance(text, bare(known)) <= 2;
}

} // namespace

bool is_event_name(const std::string &name) {
    return name.compare(0, prefix_length, event_prefix) == 0;
}

bool resembles_event_name(const std::string &name) {
    if (is_event_name(name))
        return false;
    const std::string text = bare(name);
    for (const size_t length : {prefix_length - 1, prefix_length, prefix_length + 1})
        if (text.size() >= length && distance(text.substr(0, length), event_prefix) <= 1)
            return true;
    return false;
}

bool is_entry_key(const std::string &key) {
    return std::any_of(entry_keys.begin(), entry_keys.end(),
                       [&](const std::string *known) { return *known == key; });
}

const std::string *meant_entry_key(const std::string &key) {
    const auto known = std::find_if(entry_keys.begin(), entry_keys.end(),
                                    [&](const std::string *k) { return is_near(key, *k); });
    return is_entry_key(key) || known == entry_keys.end() ? nullptr : *known;
}
