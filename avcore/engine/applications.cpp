#include "avcore/engine/applications.h"

#include "avcore/engine/dpi.h"

#include <iomanip>
#include <iostream>

namespace avcore {

int list_applications() {
    constexpr int ID_WIDTH = 8;
    constexpr int NAME_WIDTH = 24;
    std::cout << std::left;
    const auto print_row = [](const auto &app_id, const auto &cat_id, const std::string &name,
                              const std::string &category) {
        std::cout << std::setw(ID_WIDTH) << app_id << std::setw(ID_WIDTH) << cat_id
                  << std::setw(NAME_WIDTH) << name << category << '\n';
    };
    print_row("app_id", "cat_id", "app_name", "cat_name");
    for (const known_application &each : dpi_engine(1).applications())
        print_row(each.app_id, each.cat_id, each.name, each.category);
    return std::cout.flush() ? 0 : 1;
}

} // namespace avcore
