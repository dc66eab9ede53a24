// A stand-in for the Lyra command line parser, for builds on machines that have none installed.
//
// It holds the pieces that this project uses, under Lyra's names and with the behaviour and the
// texts of Lyra 1.6: options with a value, flags, a help flag, positional arguments, parsing and
// the usage text. The sources that include <lyra/lyra.hpp> are the same with either.
#ifndef LYRA_LYRA_HPP
#define LYRA_LYRA_HPP

#include <algorithm>
#include <cstddef>
#include <iomanip>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace lyra {

// The arguments of main. Copies them.
struct args {
    args(int argc, const char *const *argv) {
        if (argc > 0)
            exe_name = argv[0];
        for (int i = 1; i < argc; ++i)
            arguments.emplace_back(argv[i]);
    }
    std::string exe_name;
    std::vector<std::string> arguments;
};

// The outcome of a parse: true, or false with a message.
struct parse_result {
    explicit operator bool() const { return message_.empty(); }
    const std::string &message() const { return message_; }

    std::string message_;
};

// An option: a flag when bound to a bool, else one that takes a value. The variable it is bound to
// belongs to the caller and must outlive the parse.
struct opt {
    explicit opt(bool &flag) : flag_(&flag) {}
    opt(std::string &value, std::string hint) : value_(&value), hint_(std::move(hint)) {}

    opt &operator[](const std::string &name) {
        names_.push_back(name);
        return *this;
    }
    opt &operator()(const std::string &description) {
        description_ = description;
        return *this;
    }

    // The stand-in's own.
    bool is_positional() const { return names_.empty(); }
    bool is_named(const std::string &name) const {
        return std::find(names_.begin(), names_.end(), name) != names_.end();
    }
    std::string joined_names(const char *separator) const {
        std::string text;
        for (const std::string &name : names_)
            text += (text.empty() ? "" : separator) + name;
        if (!text.empty() && !hint_.empty())
            text += " ";
        return hint_.empty() ? text : text + "<" + hint_ + ">";
    }

    bool *flag_ = nullptr;
    std::string *value_ = nullptr;
    std::string hint_;
    std::string description_;
    std::vector<std::string> names_;
    bool ends_parse_ = false; // a help flag: what follows it no longer matters
};

// A positional argument, which may be left out: it has no name.
using arg = opt;

// The help flag, under its three customary names. Seen, it ends the parse with success.
inline opt help(bool &flag) {
    opt option(flag);
    option["-?"]["-h"]["--help"].ends_parse_ = true;
    return option;
}

// The parser: options and arguments in the order in which the usage text shows them, each accepted
// once.
class cli {
public:
    cli &add_argument(const opt &option) {
        options_.push_back(option);
        return *this;
    }

    // Sets the bound variables from left to right; those before a faulty argument stay set.
    parse_result parse(const args &arguments) {
        exe_name_ = arguments.exe_name.substr(arguments.exe_name.find_last_of("/\\") + 1);
        std::vector<bool> seen(options_.size(), false);
        outcome at;
        while (at.next < arguments.arguments.size() && !at.ended && at.message.empty())
            parse_one(arguments.arguments, at, seen);
        return {at.message};
    }

private:
    friend std::ostream &operator<<(std::ostream &, const cli &);

    struct outcome {
        std::size_t next = 0; // index of the argument to look at
        bool ended = false;
        std::string message;
    };

    // The first option of that name that has not been given yet, or the number of options.
    std::size_t find(const std::string &name, const std::vector<bool> &seen) const {
        std::size_t i = 0;
        while (i < options_.size() && (seen[i] || !options_[i].is_named(name)))
            ++i;
        return i;
    }

    // Gives a word that is no option to the first positional argument without a value. False when
    // there is none.
    bool take_word(const std::string &word, std::vector<bool> &seen) {
        for (std::size_t i = 0; i < options_.size(); ++i) {
            if (seen[i] || !options_[i].is_positional())
                continue;
            *options_[i].value_ = word;
            return seen[i] = true;
        }
        return false;
    }

    // One argument: a word, a long option, or a dash and one or more short ones, the last with its
    // value.
    void parse_one(const std::vector<std::string> &arguments, outcome &at,
                   std::vector<bool> &seen) {
        const std::string &argument = arguments[at.next++];
        const std::string unrecognized = "Unrecognized token: " + argument;
        if (argument.size() < 2 || argument[0] != '-') {
            if (!take_word(argument, seen))
                at.message = unrecognized;
            return;
        }
        const std::size_t delimiter = argument.find_first_of(" =");
        const bool has_value = delimiter != std::string::npos;
        const std::string name = argument.substr(0, delimiter);
        const std::string value = has_value ? argument.substr(delimiter + 1) : std::string();
        if (const std::size_t i = find(name, seen); i < options_.size()) {
            take(i, name, has_value ? &value : nullptr, arguments, at, seen);
            return;
        }
        if (argument[1] == '-') {
            at.message = unrecognized;
            return;
        }
        for (std::size_t position = 1; position < argument.size(); ++position) {
            const std::string letter = {'-', argument[position]};
            const std::size_t i = find(letter, seen);
            if (i == options_.size()) {
                at.message = unrecognized;
                return;
            }
            const bool delimited = position + 1 == delimiter;
            const std::string rest = argument.substr(position + (delimited ? 2 : 1));
            const bool joined = delimited || (options_[i].value_ != nullptr && !rest.empty());
            take(i, letter, joined ? &rest : nullptr, arguments, at, seen);
            if (joined || at.ended || !at.message.empty())
                return;
        }
    }

    // Applies one option, with the value from its own argument or else from the next one.
    void take(std::size_t i, const std::string &name, const std::string *joined,
              const std::vector<std::string> &arguments, outcome &at, std::vector<bool> &seen) {
        const opt &option = options_[i];
        seen[i] = true;
        if (option.flag_ != nullptr) {
            if (joined != nullptr) {
                at.message = "Flag option '" + name + "' contains value '" + *joined + "'.";
                return;
            }
            *option.flag_ = true;
            at.ended = option.ends_parse_;
        } else if (joined != nullptr) {
            *option.value_ = *joined;
        } else if (at.next < arguments.size()) {
            *option.value_ = arguments[at.next++];
        } else {
            at.message = "Expected argument following " + name;
        }
    }

    std::string exe_name_;
    std::vector<opt> options_;
};

inline cli operator|(cli parser, const opt &option) {
    return std::move(parser.add_argument(option));
}

// The usage text of a parser, with the program name of its last parse.
inline std::ostream &operator<<(std::ostream &out, const cli &parser) {
    constexpr int name_column = 23;
    out << "USAGE:\n  " << parser.exe_name_;
    for (const opt &option : parser.options_)
        out << " [" << option.joined_names("|") << "]";
    out << "\n\n";
    for (const opt &option : parser.options_)
        if (option.ends_parse_)
            out << "Display usage information.\n\n";
    out << "OPTIONS, ARGUMENTS:\n";
    for (const opt &option : parser.options_) {
        const std::string names = option.joined_names(", ");
        out << "  " << std::left << std::setw(name_column) << names;
        if (names.size() > name_column)
            out << "\n" << std::setw(name_column + 2) << "";
        out << " " << option.description_ << "\n";
    }
    return out;
}

} // namespace lyra

#endif
