#include "avcore/gate_tasks.h"

#include "avcore/enforce/enforcement.h"
#include "avcore/enforce/gate_report.h"
#include "avcore/enforce/shaper.h"
#include "avcore/feed/capture_interface.h"

#include <iostream>

namespace avcore {

int set_up_gate(const options &options, const config &settings) {
    gate attached(options.pins, options.gate_interfaces, options.attach, settings.enforce.rules);
    if (!options.config.empty()) // or a closed gate would open
        attached.set_rules(settings.enforce.rules);
    for (const std::string &name : options.gate_interfaces)
        std::cout << "attached to " << name << '\n';
    if (options.gate_nowhere_else)
        for (const std::string &name : leave_others(attached))
            std::cout << "detached from " << name << '\n';
    const interface_news news = attached.follow_interfaces();
    for (const auto *lines : {&news.changes, &news.failures})
        for (const std::string &line : *lines)
            std::cout << line << '\n';
    for (const std::string &way : ways_past_gate(options.pins, attached.interfaces()))
        std::cout << "past the gate: " << way << '\n';
    return std::cout.flush() ? 0 : 1;
}

int tear_down_gate(const options &options) {
    for (const std::string &name : tear_down_gate(options.pins))
        remove_shaping(name);
    remove_leftover_pairs();
    return 0;
}

int show_gate(const options &options) {
    const gate_status status = look_at_gate(options.pins);
    if (options.json)
        print_gate_status_json(std::cout, status);
    else
        print_gate_status(std::cout, status);
    return std::cout.flush() ? 0 : 1;
}

} // namespace avcore
