// The Wi-Fi calling file as somebody may have left it. What was read of it is written, read and
// written again: from the second writing on the file stays the same. (The first may hold a binding
// whose carriers a later line has replaced by unknown ones.)
#include "wificalling/wificalling_file.h"
#include "settled_file.h"
#include "support/saved_folder.h"

#include <cstdlib>
#include <string>

namespace {

const saved_folder &folder() {
    static const saved_folder own;
    return own;
}

void check_tables() {
    for (const wificalling_policy &policy : jorn_state.wificalling_policy_list) {
        if (policy.num_epdg > EPDGS_PER_POLICY)
            abort();
    }
    for (const wificalling_intf &binding : jorn_state.wificalling_intf_list) {
        if (binding.enable == 0 || binding.num_profiles < 0 ||
            binding.num_profiles > PROFILES_PER_INTF)
            abort();
    }
}

void restore(const std::string &content) {
    jorn_state.wificalling_intf_list.release_all();
    folder().write(WIFICALLING_FILE, content);
    jorn_load_wificalling_configurations();
    check_tables();
}

std::string written() {
    jorn_save_wificalling_configuration();
    return folder().read(WIFICALLING_FILE);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    check_that_file_settles(data, size, restore, written);
    return 0;
}
