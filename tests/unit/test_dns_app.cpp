#include "classify/dns_app.h"
#include "support/frames.h"

#include <gtest/gtest.h>

namespace {

TEST(Ipv4String, Rows) {
    // What follows an empty number isn't read.
    for (const char *text : {"1.2.3.4", "255.255.255.255", "01.2.3.4", "1..22.999"})
        EXPECT_EQ(jorn_is_valid_ipv4_string(text), 1) << text;
    for (const char *text : {"", "1.2.3", "01.2.3.256", ".1.2.3", "1.2.3.4.", "1.2.3.4.5",
                             "1.2.3.4\r", "-1.2.3.4", "1.1.1.999999999", "9999999999..1.1"})
        EXPECT_EQ(jorn_is_valid_ipv4_string(text), 0) << text;
    EXPECT_EQ(jorn_is_valid_ipv4_string(nullptr), 0);
}

TEST(RedirectIp, Rows) {
    const struct {
        const char *location;
        const char *found; // none = -1
    } rows[] = {
        {"http://192.0.2.1/path", "192.0.2.1"},
        {"http://host.example/192.0.2.1/x", "192.0.2.1"},
        {"//a//b//c//d//192.0.2.1", "192.0.2.1"},
        {"a/b/c/d/e/192.0.2.1", nullptr},
        {"http://192.0.2.1\r\nServer: x/", nullptr},
        {"1..22.33/192.0.2.1", "192.0.2.1"},
        {"///", nullptr},
        {"", nullptr},
    };
    for (const auto &row : rows) {
        uint32_t address_be = 0;
        EXPECT_EQ(jorn_parse_redirect_ip(row.location, &address_be), row.found != nullptr ? 0 : -1)
            << row.location;
        EXPECT_EQ(address_be, row.found != nullptr ? ip(row.found) : 0) << row.location;
    }
}

} // namespace
