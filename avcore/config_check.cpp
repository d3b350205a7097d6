#include "avcore/config_check.h"

#include "avcore/base/complaint.h"
#include "avcore/bus/tls.h"
#include "avcore/web/categories.h"

#include <iostream>
#include <net/if.h>
#include <stdexcept>

namespace avcore {

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
        const category_list categories = category_list::read(options.categories);
        for (const std::string &remark : categories.remarks())
            std::cerr << complaint(remark);
    });
    part([&] {
        if (settings.bus && settings.bus->secured()) {
            const tls_identity readable(*settings.bus);
        }
    });
    std::vector<std::string> inputs = options.gate_interfaces;
    if (!options.in_interface.empty())
        inputs.push_back(options.in_interface);
    for (const std::string &name : inputs)
        part([&] {
            if (if_nametoindex(name.c_str()) == 0)
                throw std::runtime_error("there is no interface " + name);
        });
    return status;
}

} // namespace avcore
