#include "avcore/names/client_names.h"

#include <utility>

namespace avcore {

void client_name_table::learn(const mac &client, std::string name) {
    const auto known = index_.find(client);
    if (known != index_.end()) {
        known->second->name = std::move(name);
        names_.splice(names_.begin(), names_, known->second);
        return;
    }
    if (names_.size() >= limit_) {
        index_.erase(names_.back().client);
        names_.pop_back();
    }
    names_.push_front({client, std::move(name)});
    index_.emplace(client, names_.begin());
}

const std::string *client_name_table::find(const mac &client) const {
    const auto known = index_.find(client);
    return known == index_.end() ? nullptr : &known->second->name;
}

} // namespace avcore
