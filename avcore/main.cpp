#include "avcore/base/complaint.h"
#include "avcore/config_check.h"
#include "avcore/engine/applications.h"
#include "avcore/gate_tasks.h"
#include "avcore/options.h"
#include "avcore/session.h"
#include "avcore/settings/config.h"
#include "shared/out_of_memory.h"

#include <exception>
#include <iostream>
#include <new>
#include <string_view>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int NO_INPUT = 3;

// The channel takes any number of connections.
void raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Which call of the kernel's comes first to a user without the rights says little to them.
const char *remedy_for(std::string_view failure) {
    const bool refused = failure.find("ermission") != std::string_view::npos ||
                         failure.find("not permitted") != std::string_view::npos;
    return refused && geteuid() != 0 ? "; run it as root" : "";
}

} // namespace

int main(int argc, char **argv) {
    end_where_memory_does("avcore");
    int status = 0;
    std::optional<avcore::options> options = avcore::parse_options(argc, argv, status);
    if (!options)
        return status;
    // The daemon's decoders log what they meet; here the daemon itself reports it.
    setlogmask(LOG_UPTO(LOG_CRIT));
    raise_descriptor_limit();
    try {
        const avcore::config settings =
            options->config.empty() ? avcore::config() : avcore::read_config(options->config);
        for (const std::string &warning : settings.warnings)
            std::cerr << avcore::complaint(warning);
        avcore::complete(*options, settings);
        switch (options->wanted) {
        case avcore::task::run:
            break;
        case avcore::task::set_up_gate:
            return avcore::set_up_gate(*options, settings);
        case avcore::task::tear_down_gate:
            return avcore::tear_down_gate(*options);
        case avcore::task::show_gate:
            return avcore::show_gate(*options);
        case avcore::task::list_applications:
            return avcore::list_applications();
        case avcore::task::check_config:
            return avcore::check_config(*options, settings);
        }
        return avcore::session(*options, settings).run();
    } catch (const avcore::config_error &error) {
        std::cerr << avcore::complaint(error.what());
        return 1;
    } catch (const avcore::no_input &error) {
        std::cerr << avcore::complaint(error.what());
        return NO_INPUT;
    } catch (const std::bad_alloc &) {
        std::cerr << "avcore: " << NO_MEMORY << '\n';
        return 1;
    } catch (const std::exception &error) {
        std::cerr << "avcore: " << error.what() << remedy_for(error.what()) << '\n';
        return 1;
    }
}
