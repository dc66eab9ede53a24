// A case for each row of a table, listed and run alone under the row's name.
#ifndef TESTS_ROWS_H
#define TESTS_ROWS_H

#include <gtest/gtest.h>

// check(row) is the case; a row has a name. The rows have to stay.
template<typename Row, size_t count>
bool register_rows(const char *suite, const Row (&rows)[count], void (*check)(const Row &)) {
    struct row_test : testing::Test {
        row_test(const Row &tested, void (*test)(const Row &)) : row(tested), body(test) {}
        void TestBody() override { body(row); }
        const Row &row;
        void (*body)(const Row &);
    };
    for (const Row &row : rows)
        testing::RegisterTest(
            suite, row.name, nullptr, nullptr, __FILE__, __LINE__,
            [&row, check]() -> testing::Test * { return new row_test(row, check); });
    return count > 0;
}

#endif
