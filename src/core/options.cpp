#include "core/options.h"

#include "core/base/settings.h"
#include "core/text/text.h"

#include <cstdio>
#include <cstring>
#include <string_view>
#include <unistd.h>

namespace {

constexpr char HELP[] = "usage: jorn -i IFACE [-c PATH] [-d] [-D]\n"
                        "\n"
                        "  -i IFACE   capture interface\n"
                        "  -c PATH    configuration path; no file is read from it\n"
                        "  -d         write debug lines\n"
                        "  -D         run in the background and log to syslog only\n"
                        "\n"
                        "jorn --version, as the only argument, prints the version.\n";

template <size_t N>
bool take_argument(char (&field)[N], char option, const char *argument) {
    if (strlen(argument) >= N) {
        fprintf(stderr, "jorn: the argument of -%c is longer than %zu characters: %s\n", option,
                N - 1, argument);
        return false;
    }
    copy_text(field, argument);
    return true;
}

} // namespace

bool answer_about_program(int argc, char *argv[]) {
    if (argc != 2)
        return false;
    const std::string_view only = argv[1];
    if (only == "--help")
        fputs(HELP, stdout);
    else if (only == "--version")
        puts("jorn " JORN_VERSION);
    else
        return false;
    return true;
}

int jorn_parse_options(int argc, char *argv[]) {
    daemon_settings &settings = jorn_settings;
    int result = 0;
    opterr = 0; // the message for an unknown option is ours
    for (int option; (option = getopt(argc, argv, "i:c:dD")) != -1;) {
        switch (option) {
        case 'D':
            settings.daemonize = 1;
            break;
        case 'd':
            settings.debug = 1;
            break;
        case 'i':
            if (!take_argument(settings.ifname, 'i', optarg))
                return OPTIONS_ERR_TOO_LONG;
            break;
        case 'c':
            if (!take_argument(settings.conf_path, 'c', optarg))
                return OPTIONS_ERR_TOO_LONG;
            break;
        default:
            fputs("unknown options directive \n", stderr);
            result = OPTIONS_ERR_UNKNOWN;
            break;
        }
    }
    return result;
}
