#include "avcore/config_check.h"

#include "avcore/base/complaint.h"
#include "avcore/bus/tls.h"
#include "avcore/feed/capture_interface.h"
#include "avcore/gate/gate.h"
#include "avcore/web/categories.h"
#include "avcore/web/safe_search.h"

#include <iostream>
#include <net/if.h>
#include <stdexcept>
#include <string>

namespace avcore {
namespace {

void expect_interface(const std::string &name) {
    if (if_nametoindex(name.c_str()) == 0)
        throw std::runtime_error("there is no interface " + name);
}

} // namespace

int check_config(const options &options, const config &settings) {
    int status = 0;
    const auto part = [&status](const auto &look) {
        try {
            look();
        } catch (const std::runtime_error &error) {
            std::cerr << complaint(error.what());
            status = 1;
        }
    };
    part([&] {
        const category_list categories = category_list::read(category_sources(options, settings));
        for (const std::string &remark : categories.remarks())
            std::cerr << complaint(remark);
    });
    if (!options.safe_search.empty())
        part([&] { check_safe_search_folder(options.safe_search); });
    part([&] {
        if (settings.bus && settings.bus->secured()) {
            const tls_identity readable(*settings.bus);
        }
    });
    const std::string &output = !options.out_interface.empty() ? options.out_interface
                                : !options.capture.empty()     ? options.capture
                                                               : settings.capture.interface;
    if (options.out_interface.empty())
        part([&] { check_capture_name(output); });
    else
        part([&] { expect_interface(output); });
    for (const std::string &name : options.gate_interfaces)
        part([&] { check_gate_place(name); });
    if (!options.in_interface.empty())
        part([&] { expect_interface(options.in_interface); });
    part([&] { refuse_own_frames(options, output); });
    return status;
}

} // namespace avcore
