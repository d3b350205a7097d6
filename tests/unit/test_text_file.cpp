#include "core/base/reply.h"
#include "core/files/text_file.h"
#include "core/text/line_format.h"
#include "core/text/text.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using texts = std::vector<std::string>;

texts read_lines(const std::string &content, size_t length) {
    FILE *file = tmpfile();
    fwrite(content.data(), 1, content.size(), file);
    rewind(file);
    line_reader reader(file, "test file", JORN_HERE, length);
    texts lines;
    jorn_settings.debug = 1; // the log goes to standard error
    testing::internal::CaptureStderr();
    for (std::string_view line; reader.next(line);) {
        EXPECT_EQ(line.data()[line.size()], '\0');
        lines.emplace_back(line.data()); // as a log line sees it
        EXPECT_EQ(reader.line_number(), lines.size());
    }
    const std::string log = testing::internal::GetCapturedStderr();
    for (size_t i = 0; i < lines.size(); ++i) {
        if (log.find("line " + std::to_string(i + 1) + " is cut after") != std::string::npos)
            lines[i] += " (cut)";
    }
    EXPECT_EQ(reader.read_error(), 0);
    fclose(file);
    return lines;
}

TEST(LineReader, LinesOfEveryShape) {
    using std::string_literals::operator""s;
    const struct {
        const char *what;
        std::string content;
        texts lines;
    } rows[] = {
        {"empty file", "", {}},
        {"no line feed at the end", "a\nb", {"a", "b"}},
        {"empty lines, carriage returns stay", "\n\r\n", {"", "\r"}},
        {"exactly full", "1234567\n12345678\nx\n", {"1234567", "12345678", "x"}},
        {"too long: the rest doesn't become a line",
         "123456789abcdefghijklm\nx",
         {"12345678 (cut)", "x"}},
        {"too long at the end", "123456789", {"12345678 (cut)"}},
        {"NUL first, inside, and behind a full line",
         "\0a\nb\0c\n12345678\0\nx"s,
         {" (cut)", "b (cut)", "12345678 (cut)", "x"}},
    };
    for (const auto &row : rows)
        EXPECT_EQ(read_lines(row.content, 8), row.lines) << row.what;
    const std::string longest(line_reader::LENGTH_MAX, 'x');
    EXPECT_EQ(read_lines(longest + "y\n" + longest + "\n", SIZE_MAX),
              (texts{longest + " (cut)", longest}));
}

struct listed {
    char name[8];
    uint8_t count;
    char items[3][4];
};

constexpr list_format CLOSED = {.separator = ',', .closed = true, .empty = "-"};

constexpr line_field<listed> LISTED_FIELDS[] = {
    text_field<&listed::name>("name"),
    number_field<&listed::count>("count"),
    {"items",
     [](std::string_view text, listed &to) {
         read_list(text, CLOSED, std::min<size_t>(to.count, 3),
                   [&](size_t i, std::string_view item) { copy_text(to.items[i], item); });
     },
     [](text_appender &to, const listed &from) {
         write_list(to, CLOSED, std::min<size_t>(from.count, 3),
                    [&](size_t i) { to.append(field_text(from.items[i])); });
     }},
};
constexpr line_format<listed> LISTED_LINE = {{';'}, LISTED_FIELDS};

TEST(LineFormat, ListsKeepTheirPlacesAndNothingOutgrowsTheText) {
    for (const char *line : {"n;0;-;\n", ";2;a,,;\n", "1234567;3;a,b,abc,;\n"}) {
        listed record = {};
        read_line(line, LISTED_LINE, record);
        for (size_t capacity = 0; capacity <= strlen(line) + 1; ++capacity) {
            char text[32];
            size_t length = 0;
            text_appender to(text, &length, capacity);
            write_line(to, LISTED_LINE, record);
            EXPECT_EQ(to.result(), capacity > strlen(line) ? 0 : -1) << capacity;
            EXPECT_TRUE(length < capacity || length == 0);
            EXPECT_TRUE(to.result() != 0 || std::string_view(text, length) == line);
        }
    }
}

TEST(Text, ReadsLeadingDecimals) {
    for (const auto &[text, number] : {std::pair<const char *, int64_t>{" \t-7;", -7},
                                       {"+5x", 5},
                                       {"x5", 0},
                                       {"+-5", 0},
                                       {"99999999999999999999", INT64_MAX},
                                       {"-99999999999999999999", INT64_MIN}})
        EXPECT_EQ(leading_decimal(text), number) << text;
    EXPECT_TRUE(contains_ignoring_case("x [APPPOLICY end]\r", "[appPolicy END]"));
    EXPECT_FALSE(contains_ignoring_case("[appPolicy en", "[appPolicy end]"));
}

TEST(Reply, IsCutAtAWholeLineAndStaysCut) {
    char text[16];
    line_buffer reply(text, sizeof text);
    reply.append("one\n");
    reply.append("two ");
    reply.append("is much too long\n");
    reply.append("x\n");
    EXPECT_EQ(reply.text(), "one\n");
    EXPECT_STREQ(text, "one\n");
}

} // namespace
