// A stand-in for the PCRE 1 library, for releases that only have PCRE2.
//
// It holds what this project uses, under PCRE 1's names and with its behaviour. Texts of messages
// are PCRE2's. Not supported: character tables, study data, options but PCRE_CASELESS, offsets.
#ifndef PCRE_H
#define PCRE_H

#define PCRE2_CODE_UNIT_WIDTH 8
#include <cstring>
#include <memory>
#include <pcre2.h>
#include <string>

using pcre = pcre2_code;
struct pcre_extra;

constexpr int PCRE_CASELESS = 1;

// A compiled pattern, which the caller frees with pcre_free; or null, with a message that stays
// until the next failure and the offset in the pattern.
inline pcre *pcre_compile(const char *pattern, int options, const char **message, int *offset,
                          const unsigned char * /*tables*/) {
    static char text[256];
    int error = 0;
    PCRE2_SIZE position = 0;
    std::string accepted = pattern;
    const auto compile = [&] {
        return pcre2_compile(reinterpret_cast<PCRE2_SPTR>(accepted.c_str()), accepted.size(),
                             (options & PCRE_CASELESS) != 0 ? PCRE2_CASELESS : 0, &error, &position,
                             nullptr);
    };
    pcre *code = compile();
    // PCRE 1 takes a letter that means nothing after a backslash for itself. So is "F" there.
    while (code == nullptr && (error == PCRE2_ERROR_UNKNOWN_ESCAPE ||
                               error == PCRE2_ERROR_UNSUPPORTED_ESCAPE_SEQUENCE)) {
        const size_t backslash = accepted.rfind('\\', position - 1);
        if (error == PCRE2_ERROR_UNSUPPORTED_ESCAPE_SEQUENCE && accepted[backslash + 1] != 'F')
            break;
        accepted.erase(backslash, 1);
        code = compile();
    }
    if (code == nullptr) {
        pcre2_get_error_message(error, reinterpret_cast<PCRE2_UCHAR *>(text), sizeof(text));
        *message = text;
        *offset = static_cast<int>(position + strlen(pattern) - accepted.size());
    }
    return code;
}

inline void pcre_free(pcre *code) {
    pcre2_code_free(code);
}

// Not negative for a match. No offsets are given.
inline int pcre_exec(const pcre *code, const pcre_extra * /*extra*/, const char *subject,
                     int length, int start, int /*options*/, int * /*offsets*/, int /*size*/) {
    const std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> match(
        pcre2_match_data_create(1, nullptr), &pcre2_match_data_free);
    return pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(subject), static_cast<PCRE2_SIZE>(length),
                       static_cast<PCRE2_SIZE>(start), 0, match.get(), nullptr);
}

#endif
