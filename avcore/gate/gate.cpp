#include "avcore/gate/gate.h"

#include "avcore/base/monotonic_clock.h"
#include "avcore/gate/pins.h"
#include "avcore/gate/places.h"
#include "avcore/gate/traffic_control.h"
#include "shared/unique_fd.h"

#include <algorithm>
#include <atomic>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <net/if.h>
#include <net/if_arp.h>
#include <optional>
#include <stdexcept>
#include <sys/mman.h>
#include <system_error>
#include <utility>

namespace avcore {
namespace {

constexpr unsigned char OBJECT[] = {
#include "gate_object.inc"
};
constexpr uint32_t RING_HEAD = 8; // of a record: its length and flags, the kernel's own word

std::string reason(int error) {
    return std::generic_category().message(error < 0 ? -error : error);
}

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

template <typename Record>
class mapping {
public:
    mapping(int fd, size_t size, int access, off_t offset)
        : size_(size), at_(mmap(nullptr, size, access, MAP_SHARED, fd, offset)) {
        if (at_ == MAP_FAILED)
            throw std::runtime_error("the gate's memory can't be mapped: " + reason(errno));
    }
    mapping(mapping &&) = delete;
    ~mapping() { munmap(at_, size_); }
    Record *get() const { return static_cast<Record *>(at_); }

private:
    size_t size_;
    void *at_;
};

template <typename Word>
Word read_word(Word &word) {
    return std::atomic_ref(word).load();
}

template <typename Word>
void write_word(Word &word, Word value) {
    std::atomic_ref(word).store(value);
}

std::vector<std::pair<unsigned, std::string>> all_interfaces() {
    struct if_nameindex *list = if_nameindex();
    std::vector<std::pair<unsigned, std::string>> interfaces;
    for (struct if_nameindex *at = list; at && at->if_index != 0; at++)
        interfaces.emplace_back(at->if_index, at->if_name);
    if_freenameindex(list);
    return interfaces;
}

uint32_t id_of_map(int fd) {
    bpf_map_info info = {};
    uint32_t size = sizeof info;
    return bpf_obj_get_info_by_fd(fd, &info, &size) == 0 ? info.id : 0;
}

bool uses(const tc_program &program, uint32_t map_id) {
    return std::find(program.map_ids.begin(), program.map_ids.end(), map_id) !=
           program.map_ids.end();
}

// What a constructor began, to be taken back when it fails.
struct beginnings {
    std::string pins;
    bool pins_are_new = false;
    std::vector<std::string> pinned;
    std::vector<std::pair<unsigned, tc_side>> attached;
    std::vector<unsigned> hooks;
    bool done = false;

    ~beginnings() {
        if (done)
            return;
        try {
            for (const auto &[index, side] : attached)
                detach(index, side);
            for (const unsigned index : hooks)
                remove_hooks(index);
            for (const std::string &pin : pinned)
                unlink(pin.c_str());
            if (pins_are_new)
                remove_pins(pins, layouts::all);
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

bool has_name(int fd, const char *name) {
    bpf_map_info info = {};
    uint32_t size = sizeof info;
    return bpf_obj_get_info_by_fd(fd, &info, &size) == 0 &&
           strncmp(info.name, name, sizeof info.name) == 0;
}

// A map of a gate whose pins are lost, for their mount lay in a namespace that ended: the attached
// programs still hold it.
unique_fd attached_map(const char *name) {
    for (const auto &[index, interface] : all_interfaces()) {
        const std::optional<tc_program> program = gate_at(index, tc_side::ingress);
        for (const uint32_t id : program ? program->map_ids : std::vector<uint32_t>()) {
            unique_fd fd(bpf_map_get_fd_by_id(id));
            if (fd.valid() && has_name(fd.get(), name))
                return fd;
        }
    }
    return {};
}

// Not valid where there is none.
unique_fd find_map(const std::string &pins, const char *name) {
    const std::string pin = pin_of(pins, name);
    unique_fd fd(bpf_obj_get(pin.c_str()));
    if (fd.valid())
        return fd;
    if (errno != ENOENT)
        throw std::runtime_error(pin + " can't be opened: " + reason(errno));
    return attached_map(name);
}

unique_fd pinned_map(const std::string &pins, const char *name) {
    unique_fd fd = find_map(pins, name);
    if (!fd.valid())
        throw std::runtime_error("no map of the gate at " + pin_of(pins, name));
    return fd;
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
    return object;
}

void load(bpf_object *object, beginnings &begun) {
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

int program_fd(bpf_object *object, tc_side side) {
    const std::string name = std::string(GATE_PROGRAM) + (side == tc_side::ingress ? "up" : "down");
    return bpf_program__fd(bpf_object__find_program_by_name(object, name.c_str()));
}

// Leaves what is attached already, unless it comes from another build or works on other maps.
void attach_where_needed(bpf_object *object, unsigned index, bool is_new, beginnings &begun) {
    if (is_new && make_hooks(index))
        begun.hooks.push_back(index);
    for (const tc_side side : TC_SIDES) {
        const int fd = program_fd(object, side);
        const tc_program ours = program_of(fd);
        const std::optional<tc_program> there = gate_at(index, side);
        if (!there && !is_new)
            continue;
        if (there && there->tag == ours.tag && there->map_ids == ours.map_ids)
            continue;
        attach(index, side, fd);
        if (!there)
            begun.attached.emplace_back(index, side);
    }
}

// Where the gate stands at other interfaces, too, it is brought up to date there.
void attach_everywhere(bpf_object *object, const std::vector<unsigned> &wanted, uint32_t settings,
                       beginnings &begun) {
    for (const unsigned index : wanted)
        attach_where_needed(object, index, true, begun);
    for (const auto &[index, name] : all_interfaces()) {
        const std::optional<tc_program> there = gate_at(index, tc_side::ingress);
        if (there && uses(*there, settings))
            attach_where_needed(object, index, false, begun);
    }
}

void set_up(const std::string &pins, const std::vector<std::string> &interfaces) {
    std::vector<unsigned> indices;
    indices.reserve(interfaces.size());
    for (const std::string &name : interfaces)
        indices.push_back(ethernet_interface(name));
    beginnings begun;
    begun.pins = pins;
    std::error_code error; // that it can't be looked at shows when it is made
    begun.pins_are_new = !std::filesystem::exists(layout_folder(pins), error);
    make_pins(pins);
    const unique_fd lock = lock_beside(pins);
    const object_owner object = open_object();
    reuse_maps(object.get(), pins);
    load(object.get(), begun);
    const int settings = bpf_object__find_map_fd_by_name(object.get(), "settings");
    attach_everywhere(object.get(), indices, id_of_map(settings), begun);
    remove_pins(pins, layouts::others);
    begun.done = true;
}

gate_counts read_counts(int fd) {
    const int processors = libbpf_num_possible_cpus();
    std::vector<gate_processor> each(processors > 0 ? static_cast<size_t>(processors) : 1);
    gate_counts counts = {};
    const uint32_t first = 0;
    if (bpf_map_lookup_elem(fd, &first, each.data()) == 0)
        for (const gate_processor &one : each)
            for (size_t i = 0; i < counts.size(); i++)
                counts[i] += one.counts[i];
    return counts;
}

void count_verdicts(int fd, uint64_t (&verdicts)[3]) {
    std::vector<gate_flow> flows(GATE_FLOWS / 16);
    std::vector<gate_verdict> found(flows.size());
    uint32_t at = 0;
    int error = 0;
    for (void *from = nullptr; error == 0; from = &at) {
        auto count = static_cast<uint32_t>(flows.size());
        error = bpf_map_lookup_batch(fd, from, &at, flows.data(), found.data(), &count, nullptr);
        if (error != 0 && error != -ENOENT)
            return;
        for (uint32_t i = 0; i < count; i++) {
            const bool final = (found[i].flags & GATE_NOT_YET_FINAL) == 0;
            if (flows[i].fragments == 0 && found[i].action < std::size(verdicts))
                verdicts[final ? found[i].action : 0]++;
        }
    }
}

// The ring as the kernel lays it out: a page that its reader writes, one that its writer writes,
// and the records, mapped twice in a row, so that each lies in one piece.
class ring {
public:
    explicit ring(int fd)
        : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
          reader_(fd, page_, PROT_READ | PROT_WRITE, 0),
          writer_(fd, page_ + 2 * static_cast<size_t>(GATE_RING_BYTES), PROT_READ,
                  static_cast<off_t>(page_)) {}

    // Frees the record of the last call.
    std::span<const uint8_t> next() {
        uint64_t at = read_word(*reader_.get()) + taken_;
        taken_ = 0;
        for (;;) {
            write_word(*reader_.get(), at);
            if (at >= std::atomic_ref(*const_cast<uint64_t *>(writer_.get())).load())
                return {};
            const uint8_t *head = record_at(at);
            const uint32_t word = head_of(head);
            if (word & BPF_RINGBUF_BUSY_BIT)
                return {};
            const uint32_t length = word & ~(BPF_RINGBUF_BUSY_BIT | BPF_RINGBUF_DISCARD_BIT);
            const uint64_t whole = (uint64_t{length} + RING_HEAD + 7) / 8 * 8;
            if (!(word & BPF_RINGBUF_DISCARD_BIT)) {
                taken_ = whole;
                return {head + RING_HEAD, length};
            }
            at += whole;
        }
    }

private:
    const uint8_t *record_at(uint64_t at) const {
        return reinterpret_cast<const uint8_t *>(writer_.get()) + page_ +
               (at & (GATE_RING_BYTES - 1));
    }
    static uint32_t head_of(const uint8_t *head) {
        auto *word = reinterpret_cast<uint32_t *>(const_cast<uint8_t *>(head));
        return std::atomic_ref(*word).load();
    }

    size_t page_;
    mapping<uint64_t> reader_;
    mapping<uint64_t> writer_;
    uint64_t taken_ = 0;
};

void list_attached(uint32_t settings_id, gate_status &status) {
    std::map<unsigned, std::string> attached;
    for (const auto &[index, name] : all_interfaces()) {
        const std::optional<tc_program> there = gate_at(index, tc_side::ingress);
        if (there && uses(*there, settings_id))
            attached[index] = name;
    }
    const wireless_list all = wireless_interfaces().value_or(wireless_list());
    for (const auto &[index, name] : attached) {
        const auto access_point = attached.find(access_point_of(index, all));
        if (access_point == attached.end())
            status.interfaces.push_back(name);
        else
            status.stations[access_point->second].push_back(name);
    }
}

} // namespace

struct gate::parts {
    parts(const std::string &at, const std::vector<std::string> &names)
        : pins(at),
          verdicts(pinned_map(pins, "verdicts")),
          flows(pinned_map(pins, "flows")),
          limits(pinned_map(pins, "limits")),
          clients(pinned_map(pins, "clients")),
          processors(pinned_map(pins, "processors")),
          copies(pinned_map(pins, "copies")),
          settings_map(pinned_map(pins, "settings")),
          settings(settings_map.get(), sizeof(gate_settings), PROT_READ | PROT_WRITE, 0),
          ring_of_copies(copies.get()),
          places(pins, names) {}

    std::string pins;
    unique_fd verdicts;
    unique_fd flows;
    unique_fd limits;
    unique_fd clients;
    unique_fd processors;
    unique_fd copies;
    unique_fd settings_map;
    mapping<gate_settings> settings;
    ring ring_of_copies;
    gate_places places;
};

gate::gate(const std::string &pins, const std::vector<std::string> &interfaces) {
    libbpf_set_print(nullptr); // it would talk to standard error
    set_up(pins, interfaces);
    parts_ = std::make_unique<parts>(pins, interfaces);
    if (generation() == 0) { // a new one
        set_rules({});
        next_generation();
    }
}

gate::~gate() = default;
gate::gate(gate &&) noexcept = default;

interface_news gate::follow_interfaces() {
    return parts_->places.follow();
}

bool gate::misses_interfaces() const {
    return parts_->places.misses_some();
}

int gate::interfaces_fd() const {
    return parts_->places.fd();
}

std::vector<std::string> gate::interfaces() const {
    return parts_->places.names();
}

std::vector<std::string> gate::taken_away() {
    return parts_->places.taken_away();
}

const std::string &gate::interface_of(uint32_t if_index) {
    return parts_->places.name_of(if_index);
}

void gate::set_rules(const gate_rules &rules) {
    gate_settings &settings = *parts_->settings.get();
    write_word(settings.fail_closed, uint32_t{rules.fail_closed});
    write_word(settings.copies_per_second, rules.copies_per_second);
    uint32_t bits = 0;
    bits |= rules.pass_tags ? uint32_t{GATE_PASS_TAGS} : 0;
    bits |= rules.drop_fragments ? uint32_t{GATE_DROP_FRAGMENTS} : 0;
    bits |= rules.drop_excess ? uint32_t{GATE_DROP_EXCESS} : 0;
    write_word(settings.rules, bits);
}

int gate::fd() const {
    return parts_->copies.get();
}

bool gate::take(gate_copy_seen &copy) {
    const std::span<const uint8_t> record = parts_->ring_of_copies.next();
    if (record.size() < sizeof copy.head)
        return false;
    memcpy(&copy.head, record.data(), sizeof copy.head);
    const std::span<const uint8_t> frame = record.subspan(sizeof copy.head);
    copy.frame = frame.first(std::min<size_t>(frame.size(), copy.head.captured));
    return true;
}

bool gate::decide(const gate_flow &flow, const gate_verdict &verdict) {
    const bool done = bpf_map_update_elem(parts_->verdicts.get(), &flow, &verdict, BPF_ANY) == 0;
    ++std::atomic_ref(parts_->settings.get()->changes);
    return done;
}

gate_counter gate::counter_of(const gate_flow &flow) const {
    gate_flow_state state = {};
    if (bpf_map_lookup_elem(parts_->flows.get(), &flow, &state) != 0)
        state = {};
    return state.counter;
}

bool gate::set_limit(uint32_t bucket, const gate_limit &limit) {
    return bucket != 0 && bpf_map_update_elem(parts_->limits.get(), &bucket, &limit, BPF_ANY) == 0;
}

void gate::beat() {
    write_word(parts_->settings.get()->beat_ns, __u64{monotonic_ns()});
}

void gate::ask_although_unattended(bool ask) {
    write_word(parts_->settings.get()->probing, uint32_t{ask});
}

uint32_t gate::generation() const {
    return read_word(parts_->settings.get()->generation);
}

void gate::next_generation() {
    std::atomic_ref generation(parts_->settings.get()->generation);
    if (++generation == 0) // which is that of a new gate
        ++generation;
}

gate_counts gate::counts() const {
    return read_counts(parts_->processors.get());
}

std::map<std::array<uint8_t, 6>, uint64_t> gate::refused_copies() const {
    std::vector<gate_client> clients(GATE_CLIENTS);
    std::vector<gate_client_state> states(clients.size());
    auto count = static_cast<uint32_t>(clients.size());
    uint32_t next = 0;
    const int error = bpf_map_lookup_batch(parts_->clients.get(), nullptr, &next, clients.data(),
                                           states.data(), &count, nullptr);
    std::map<std::array<uint8_t, 6>, uint64_t> refused;
    for (uint32_t i = 0; i < count && (error == 0 || error == -ENOENT); i++)
        if (states[i].refused > 0)
            refused[std::to_array(clients[i].mac)] = states[i].refused;
    return refused;
}

std::vector<std::string> tear_down_gate(const std::string &pins) {
    std::vector<std::string> names;
    libbpf_set_print(nullptr);
    const unique_fd lock = lock_beside(pins);
    for (const auto &[index, name] : all_interfaces()) {
        if (take_gate_from(index))
            names.push_back(name);
    }
    remove_pins(pins, layouts::all);
    return names;
}

gate_status look_at_gate(const std::string &pins) {
    libbpf_set_print(nullptr);
    gate_status status;
    const unique_fd settings_map = find_map(pins, "settings");
    if (!settings_map.valid())
        return status;
    gate_settings settings = {};
    const uint32_t first = 0;
    if (bpf_map_lookup_elem(settings_map.get(), &first, &settings) != 0)
        throw std::runtime_error("the gate's settings can't be read: " + reason(errno));
    status.there = true;
    list_attached(id_of_map(settings_map.get()), status);
    status.rules = {settings.fail_closed != 0, settings.copies_per_second,
                    (settings.rules & GATE_PASS_TAGS) != 0,
                    (settings.rules & GATE_DROP_FRAGMENTS) != 0,
                    (settings.rules & GATE_DROP_EXCESS) != 0};
    status.generation = settings.generation;
    if (settings.beat_ns != 0)
        status.beat_age_ms = static_cast<int64_t>(monotonic_ns() - settings.beat_ns) / 1'000'000;
    count_verdicts(pinned_map(pins, "verdicts").get(), status.verdicts);
    status.counts = read_counts(pinned_map(pins, "processors").get());
    return status;
}

} // namespace avcore
