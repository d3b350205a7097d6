#include "avcore/gate/loader.h"

#include "avcore/gate/clsact.h"
#include "avcore/gate/mapping.h"
#include "avcore/gate/maps.h"
#include "avcore/gate/pins.h"
#include "avcore/gate/traffic_control.h"
#include "avcore/records/gate_records.h"
#include "shared/unique_fd.h"

#include <bpf/bpf.h>
#include <bpf/btf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <tuple>
#include <unistd.h>

namespace avcore {
namespace {

constexpr unsigned char OBJECT[] = {
#include "gate_object.inc"
};

std::string reason(int error) {
    return std::generic_category().message(error < 0 ? -error : error);
}

constexpr char KERNEL_TYPES[] = "/sys/kernel/btf/vmlinux";

// The verifier's log says all that led to its refusal, then why. Older kernels cut its end off
// where it doesn't fit; what isn't written takes no memory.
constexpr size_t VERIFIER_LOG_SIZE = size_t{16} * 1024 * 1024;
constexpr int VERIFIER_LINES = 8; // of them, in an error

std::string last_lines(std::string_view log) {
    std::string lines;
    for (int i = 0; i < VERIFIER_LINES && !log.empty(); i++) {
        log = log.substr(0, log.find_last_not_of('\n') + 1);
        const size_t line = log.rfind('\n') + 1;
        lines.insert(0, "\n    " + std::string(log.substr(line)));
        log = log.substr(0, line);
    }
    return lines.empty() ? lines : "; its verifier's last lines:" + lines;
}

// What attached programs are known by. One that stands already may have none: an older build
// attached it.
void keep_program(const std::string &pins, int fd) {
    const std::string pin = pin_of(pins, program_of(fd).id);
    if (bpf_obj_pin(fd, pin.c_str()) != 0 && errno != EEXIST)
        throw std::runtime_error("no pin " + pin + ": " + reason(errno));
}

// The pins of programs that are attached nowhere any more. Returns whether some are.
bool forget_detached_programs(const std::string &pins) {
    std::set<std::string> attached;
    for (const auto &[index, name] : all_interfaces())
        for (const tc_side side : TC_SIDES)
            for (const attach_way way : ATTACH_WAYS)
                if (const std::optional<tc_program> there = gate_at(pins, index, side, way))
                    attached.insert(std::to_string(there->id));
    bool some_stand = false;
    std::error_code error;
    for (const auto &pin : std::filesystem::directory_iterator(program_folder(pins), error)) {
        if (attached.contains(pin.path().filename()))
            some_stand = true;
        else
            unlink(pin.path().c_str());
    }
    return some_stand;
}

// What a constructor began, to be taken back when it fails.
struct beginnings {
    std::string pins;
    bool pins_are_new = false;
    std::vector<std::string> pinned;
    std::vector<std::tuple<unsigned, tc_side, attach_way>> attached;
    std::vector<unsigned> hooks;
    bool done = false;

    ~beginnings() {
        if (done)
            return;
        try {
            for (const auto &[index, side, way] : attached)
                detach(pins, index, side, way);
            for (const unsigned index : hooks)
                remove_hooks(index);
            if (forget_detached_programs(pins)) // in the place of an older one
                return;
            for (const std::string &pin : pinned)
                unlink(pin.c_str());
            if (pins_are_new)
                remove_pins(pins, layouts::own);
        } catch (const std::exception &) {
            return; // the first error is the one to be told
        }
    }
};

struct close_object {
    void operator()(bpf_object *object) const { bpf_object__close(object); }
};
using object_owner = std::unique_ptr<bpf_object, close_object>;

bool is_alike(const bpf_map *map, int fd) {
    bpf_map_info info = {};
    uint32_t size = sizeof info;
    return bpf_obj_get_info_by_fd(fd, &info, &size) == 0 && info.type == bpf_map__type(map) &&
           info.key_size == bpf_map__key_size(map) && info.value_size == bpf_map__value_size(map) &&
           info.max_entries == bpf_map__max_entries(map) &&
           info.map_flags == bpf_map__map_flags(map);
}

void reuse_maps(bpf_object *object, const std::string &pins) {
    bpf_map *map = nullptr;
    bpf_object__for_each_map(map, object) {
        const std::string pin = pin_of(pins, bpf_map__name(map));
        const unique_fd fd = find_map(pins, bpf_map__name(map));
        if (!fd.valid())
            continue;
        if (!is_alike(map, fd.get())) {
            if (!std::filesystem::exists(pin))
                continue; // of another layout, attached still
            throw std::runtime_error(pin + " is no map of this gate: `avcore teardown` removes it");
        }
        const int error = bpf_map__reuse_fd(map, fd.get());
        if (error != 0)
            throw std::runtime_error(pin + " can't be used again: " + reason(error));
    }
}

object_owner open_object() {
    bpf_object_open_opts options = {};
    options.sz = sizeof options;
    options.object_name = "jorn_gate";
    object_owner object(bpf_object__open_mem(OBJECT, sizeof OBJECT, &options));
    if (!object)
        throw std::runtime_error("the gate's program can't be read: " + reason(errno));
    bpf_map *recent = bpf_object__find_map_by_name(object.get(), "recent");
    bpf_map__set_max_entries(recent, static_cast<uint32_t>(GATE_RECENT * possible_processors()));
    return object;
}

// A kernel without types of its own (CONFIG_DEBUG_INFO_BTF) can't know what a global function is
// given, and refuses it. It walks through a static one anew with each call. Which of them a
// function is stands in the gate's types, and these are looked at when the gate is loaded.
void make_functions_static(const bpf_object *object) {
    static_assert(BTF_FUNC_STATIC == 0);
    const btf *types = bpf_object__btf(object);
    for (uint32_t id = 1; id < btf__type_cnt(types); ++id) {
        const btf_type *type = btf__type_by_id(types, id);
        if (btf_is_func(type))
            const_cast<btf_type *>(type)->info &= ~uint32_t{BTF_FUNC_GLOBAL};
    }
}

void load(bpf_object *object, beginnings &begun) {
    if (access(KERNEL_TYPES, F_OK) != 0)
        make_functions_static(object);
    const auto log = std::make_unique_for_overwrite<char[]>(VERIFIER_LOG_SIZE);
    log[0] = '\0';
    bpf_program *program = nullptr;
    bpf_object__for_each_program(program, object)
        bpf_program__set_log_buf(program, log.get(), VERIFIER_LOG_SIZE);
    const int error = bpf_object__load(object);
    if (error != 0)
        throw std::runtime_error("the kernel doesn't take the gate: " + reason(error) +
                                 last_lines(log.get()));
    bpf_map *map = nullptr;
    bpf_object__for_each_map(map, object) {
        const std::string pin = pin_of(begun.pins, bpf_map__name(map));
        if (bpf_obj_pin(bpf_map__fd(map), pin.c_str()) == 0)
            begun.pinned.push_back(pin);
        else if (errno != EEXIST)
            throw std::runtime_error("no pin " + pin + ": " + reason(errno));
    }
}

// A gate that somebody has used keeps its own until whoever runs it changes them. Without the way
// back, which is opened later, packets that are held would be lost.
void give_rules(int settings_map, gate_rules first) {
    const mapping<gate_settings> settings(settings_map, sizeof(gate_settings),
                                          PROT_READ | PROT_WRITE, 0);
    first.hold_undecided = false;
    if (read_word(settings.get()->generation) == 0)
        write_rules(*settings.get(), first);
}

int program_fd(bpf_object *object, tc_side side) {
    const std::string name = std::string(GATE_PROGRAM) + (side == tc_side::ingress ? "up" : "down");
    return bpf_program__fd(bpf_object__find_program_by_name(object, name.c_str()));
}

// Leaves what is attached already, unless it comes from another build or works on other maps.
void attach_where_needed(bpf_object *object, unsigned index, attach_way way, bool is_new,
                         beginnings &begun) {
    const std::string &pins = begun.pins;
    if (way == attach_way::clsact && make_hooks(index))
        begun.hooks.push_back(index);
    for (const tc_side side : TC_SIDES) {
        const int fd = program_fd(object, side);
        const tc_program ours = program_of(fd);
        if (!is_new && !gate_at(pins, index, side))
            continue;
        const std::optional<tc_program> there = gate_at(pins, index, side, way);
        if (there && there->tag == ours.tag && there->map_ids == ours.map_ids) {
            if (const unique_fd standing = open_program(pins, there->id, index); standing.valid())
                keep_program(pins, standing.get());
            continue;
        }
        keep_program(pins, fd);
        attach(pins, index, side, way, fd);
        if (!there)
            begun.attached.emplace_back(index, side, way);
    }
}

// Where the gate stands at other interfaces, too, also that of an older build by whose pins it is
// known, it is brought up to date there. Returns all of them.
std::map<unsigned, attach_way> attach_everywhere(bpf_object *object,
                                                 const std::vector<unsigned> &named,
                                                 std::optional<attach_way> wanted,
                                                 uint32_t settings, beginnings &begun) {
    const std::string &pins = begun.pins;
    std::map<unsigned, attach_way> attached;
    for (const unsigned index : named) {
        attached[index] = way_to_attach(index, wanted);
        attach_where_needed(object, index, attached[index], true, begun);
    }
    for (const auto &[index, name] : all_interfaces()) {
        if (attached.contains(index))
            continue;
        const std::optional<tc_program> there = gate_at(pins, index, tc_side::ingress);
        if (!there || !(uses(*there, settings) || pinned_program(pins, there->id).valid()))
            continue;
        attached[index] = way_to_attach(index, wanted);
        attach_where_needed(object, index, attached[index], false, begun);
    }
    return attached;
}

// A gate that was attached by the other way goes when its successor stands, or packets would pass
// unjudged in between. The kernel has no single step from one way to the other: for as long as the
// rest takes (some 25 ms an interface) one judges behind the other. What one denies stays denied;
// what both let pass is counted, copied and taken from its limit twice. A successor that ended the
// road of what it lets pass would spare that, and pass over what others have attached.
void take_predecessors_away(const std::string &pins,
                            const std::map<unsigned, attach_way> &attached) {
    for (const auto &[index, chosen] : attached)
        for (const attach_way way : ATTACH_WAYS)
            if (way != chosen)
                take_gate_from(pins, index, way);
}

} // namespace

unique_fd set_up_gate(const std::string &pins, const std::vector<std::string> &interfaces,
                      std::optional<attach_way> wanted, const gate_rules &first) {
    std::vector<unsigned> indices;
    indices.reserve(interfaces.size());
    for (const std::string &name : interfaces)
        indices.push_back(ethernet_interface(name));
    make_folder_beside(pins);
    const unique_fd lock = lock_beside(pins);
    beginnings begun; // taken back before the lock is
    begun.pins = pins;
    std::error_code error; // that it can't be looked at shows when it is made
    begun.pins_are_new = !std::filesystem::exists(layout_folder(pins), error);
    make_pins(pins);
    const object_owner object = open_object();
    reuse_maps(object.get(), pins);
    load(object.get(), begun);
    const int settings = bpf_object__find_map_fd_by_name(object.get(), "settings");
    give_rules(settings, first);
    const auto attached =
        attach_everywhere(object.get(), indices, wanted, id_of_map(settings), begun);
    begun.done = true; // from here on what was begun may be all that stands
    take_predecessors_away(pins, attached);
    forget_detached_programs(pins);
    remove_pins(pins, layouts::others);
    const bpf_program *back = bpf_object__find_program_by_name(object.get(), "jorn_back");
    return unique_fd(fcntl(bpf_program__fd(back), F_DUPFD_CLOEXEC, 0));
}

} // namespace avcore
