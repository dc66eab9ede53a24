// A stand-in for the PCRE 1 library, for releases that only have PCRE2.
//
// It holds what this project uses, under PCRE 1's names and with its behaviour. Texts of messages
// are PCRE2's. Not supported: character tables, study data, options but PCRE_CASELESS, offsets.
#ifndef PCRE_H
#define PCRE_H

#define PCRE2_CODE_UNIT_WIDTH 8
#include <memory>
#include <pcre2.h>

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
    const auto compile = [&](pcre2_compile_context *context) {
        return pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern), PCRE2_ZERO_TERMINATED,
                             (options & PCRE_CASELESS) != 0 ? PCRE2_CASELESS : 0, &error, &position,
                             context);
    };
    pcre *code = compile(nullptr);
    // PCRE 1 takes an unknown escape for the letter itself; other faults of an escape it refuses.
    if (code == nullptr && error == PCRE2_ERROR_UNKNOWN_ESCAPE) {
        const std::unique_ptr<pcre2_compile_context, decltype(&pcre2_compile_context_free)> context(
            pcre2_compile_context_create(nullptr), &pcre2_compile_context_free);
        if (context != nullptr) {
            pcre2_set_compile_extra_options(context.get(), PCRE2_EXTRA_BAD_ESCAPE_IS_LITERAL);
            code = compile(context.get());
        }
    }
    if (code == nullptr) {
        pcre2_get_error_message(error, reinterpret_cast<PCRE2_UCHAR *>(text), sizeof(text));
        *message = text;
        *offset = static_cast<int>(position);
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
