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
    args(int argc, const char *const *argv)
        : exe_name(argc > 0 ? argv[0] : ""), arguments(argv + (argc > 0 ? 1 : 0), argv + argc) {}
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
    bool is_named(const std::string &name) const {
        return std::find(names_.begin(), names_.end(), name) != names_.end();
    }
    std::string joined_names(const char *separator) const {
        std::string text;
        for (const std::string &name : names_)
            text += (text.empty() ? "" : separator) + name;
        return hint_.empty() ? text : text + (text.empty() ? "<" : " <") + hint_ + ">";
    }

    bool *flag_ = nullptr;
    std::string *value_ = nullptr;
    std::string hint_;
    std::string description_;
    std::vector<std::string> names_;
    bool ends_parse_ = false; // a help flag: what follows it no longer matters
    bool is_given_ = false;
};

// A positional argument, which may be left out: it has no name.
using arg = opt;

// The help flag, under its three customary names. Seen, it ends the parse with success.
inline opt help(bool &flag) {
    opt option(flag);
    option["-?"]["-h"]["--help"].ends_parse_ = true;
    return option;
}

// The parser, for one parse: options and arguments in the order in which the usage text shows them,
// each accepted once.
class cli {
public:
    // Sets the bound variables from left to right; those before a faulty argument stay set.
    parse_result parse(const args &given) {
        exe_name_ = given.exe_name.substr(given.exe_name.find_last_of("/\\") + 1);
        arguments_ = given.arguments;
        while (next_ < arguments_.size() && !has_ended_ && message_.empty())
            parse_one(arguments_[next_++]);
        return {message_};
    }

private:
    friend cli operator|(cli parser, const opt &option);
    friend std::ostream &operator<<(std::ostream &, const cli &);

    // The first option of that name that has not been given yet, or null. Without a name, the first
    // positional argument.
    opt *find(const std::string &name) {
        for (opt &option : options_)
            if (!option.is_given_ && (name.empty() ? option.names_.empty() : option.is_named(name)))
                return &option;
        return nullptr;
    }

    // A word, a long option, or a dash and one or more short ones, the last with its value.
    void parse_one(const std::string &argument) {
        if (argument.size() < 2 || argument[0] != '-') {
            if (opt *word = find(""))
                take(*word, "", &argument);
            else
                refuse(argument);
            return;
        }
        const std::size_t delimiter = argument.find_first_of(" =");
        const bool has_value = delimiter != std::string::npos;
        const std::string name = argument.substr(0, delimiter);
        const std::string value = has_value ? argument.substr(delimiter + 1) : std::string();
        if (opt *option = find(name)) {
            take(*option, name, has_value ? &value : nullptr);
            return;
        }
        for (std::size_t position = 1; position < argument.size(); ++position) {
            const std::string letter = {'-', argument[position]};
            opt *option = argument[1] == '-' ? nullptr : find(letter);
            if (option == nullptr) {
                refuse(argument);
                return;
            }
            const bool delimited = position + 1 == delimiter;
            const std::string rest = argument.substr(position + (delimited ? 2 : 1));
            const bool joined = delimited || (option->value_ != nullptr && !rest.empty());
            take(*option, letter, joined ? &rest : nullptr);
            if (joined || has_ended_ || !message_.empty())
                return;
        }
    }

    void refuse(const std::string &argument) { message_ = "Unrecognized token: " + argument; }

    // Applies one option, with the value from its own argument or else from the next one.
    void take(opt &option, const std::string &name, const std::string *joined) {
        option.is_given_ = true;
        if (option.flag_ != nullptr) {
            if (joined != nullptr) {
                message_ = "Flag option '" + name + "' contains value '" + *joined + "'.";
                return;
            }
            *option.flag_ = true;
            has_ended_ = option.ends_parse_;
        } else if (joined != nullptr) {
            *option.value_ = *joined;
        } else if (next_ < arguments_.size()) {
            *option.value_ = arguments_[next_++];
        } else {
            message_ = "Expected argument following " + name;
        }
    }

    std::string exe_name_;
    std::vector<opt> options_;
    std::vector<std::string> arguments_;
    std::size_t next_ = 0; // index of the argument to look at
    bool has_ended_ = false;
    std::string message_;
};

inline cli operator|(cli parser, const opt &option) {
    parser.options_.push_back(option);
    return parser;
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
