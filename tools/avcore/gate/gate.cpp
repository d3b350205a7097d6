#include "avcore/gate/gate.h"

#include "avcore/gate/gate_filters.h"
#include "unique_fd.h"

#include <algorithm>
#include <atomic>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <linux/magic.h>
#include <net/if.h>
#include <sstream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace avcore {
namespace {

constexpr unsigned char OBJECT[] = {
#include "gate_object.inc"
};
constexpr char MOUNT_SOURCE[] = "jorn-gate"; // by which our own mount is known
constexpr char WORKBENCH[] = "workbench";    // the one map that nobody else needs
constexpr const char *PINNED[] = {"verdicts", "counters", "limits", "buckets",
                                  "clients",  "settings", "counts", "copies"};

std::string pins_folder(const std::string &pins) {
    return pins + "/" GATE_LAYOUT;
}

std::runtime_error failure(const std::string &what, int error) {
    return std::runtime_error(what + ": " + strerror(error < 0 ? -error : error));
}

uint64_t monotonic_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// What libbpf said last, for the reason of a failure.
std::string last_words;

int keep_words(libbpf_print_level level, const char *format, va_list arguments) {
    if (level != LIBBPF_WARN)
        return 0;
    char line[512];
    vsnprintf(line, sizeof line, format, arguments);
    last_words = line;
    last_words.erase(std::min(last_words.find('\n'), last_words.size()));
    return 0;
}

bool is_bpffs(const std::string &folder) {
    struct statfs found = {};
    return statfs(folder.c_str(), &found) == 0 &&
           static_cast<uint64_t>(found.f_type) == BPF_FS_MAGIC;
}

void prepare_folder(const std::string &pins) {
    std::error_code error;
    std::filesystem::create_directories(pins, error);
    if (error)
        throw std::runtime_error("the gate's folder " + pins + ": " + error.message());
    if (!is_bpffs(pins) && mount(MOUNT_SOURCE, pins.c_str(), "bpf", 0, "mode=0700") != 0)
        throw failure("can't mount a bpffs at " + pins, errno);
    if (mkdir(pins_folder(pins).c_str(), 0700) != 0 && errno != EEXIST)
        throw failure("the gate's folder " + pins_folder(pins), errno);
}

bool is_our_mount(const std::string &folder) {
    std::ifstream mounts("/proc/self/mounts");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream words(line);
        std::string source;
        std::string place;
        if (words >> source >> place && source == MOUNT_SOURCE && place == folder)
            return true;
    }
    return false;
}

// A bpffs has some files of the kernel's; what others pinned would be in folders like ours.
bool holds_folders(const std::string &folder) {
    std::error_code error;
    const std::filesystem::directory_iterator entries(folder, error);
    return std::any_of(begin(entries), end(entries),
                       [](const auto &entry) { return entry.is_directory(); });
}

// A mapping of the settings, through which single words are written.
class settings_view {
public:
    settings_view(int map_fd, int protection)
        : size_(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
          memory_(mmap(nullptr, size_, protection, MAP_SHARED, map_fd, 0)) {
        if (memory_ == MAP_FAILED)
            throw failure("the gate's settings", errno);
    }
    ~settings_view() { munmap(memory_, size_); }
    settings_view(const settings_view &) = delete;
    settings_view &operator=(const settings_view &) = delete;

    template <typename Word>
    void write(Word gate_settings::*member, Word value) {
        std::atomic_ref(words()->*member).store(value);
    }
    template <typename Word>
    Word read(Word gate_settings::*member) const {
        return std::atomic_ref(words()->*member).load();
    }

private:
    gate_settings *words() const { return static_cast<gate_settings *>(memory_); }

    size_t size_;
    void *memory_;
};

gate_counts read_counts(int map_fd) {
    gate_counts counts = {};
    std::vector<uint64_t> values(static_cast<size_t>(libbpf_num_possible_cpus()));
    for (uint32_t i = 0; i < GATE_COUNTS; ++i) {
        if (bpf_map_lookup_elem(map_fd, &i, values.data()) != 0)
            continue;
        for (const uint64_t value : values)
            counts[i] += value;
    }
    return counts;
}

std::vector<std::string> attached_interfaces() {
    std::vector<std::string> names;
    struct if_nameindex *const all = ::if_nameindex();
    for (const struct if_nameindex *one = all; one != nullptr && one->if_index != 0; ++one) {
        for (const gate_direction direction : {GATE_UP, GATE_DOWN}) {
            const auto filters = filters_at(static_cast<int>(one->if_index), direction);
            if (std::any_of(filters.begin(), filters.end(),
                            [](const tc_filter &filter) { return filter.is_gate(); })) {
                names.emplace_back(one->if_name);
                break;
            }
        }
    }
    if (all != nullptr)
        if_freenameindex(all);
    return names;
}

} // namespace

struct gate::parts {
    struct object_closer {
        void operator()(bpf_object *object) const { bpf_object__close(object); }
    };
    struct ring_closer {
        void operator()(ring_buffer *ring) const { ring_buffer__free(ring); }
    };

    std::unique_ptr<bpf_object, object_closer> object;
    std::unique_ptr<settings_view> settings;
    std::unique_ptr<ring_buffer, ring_closer> ring;
    int verdicts = -1;
    int limits = -1;
    int counts = -1;
    gate_copy head = {};
    std::vector<uint8_t> frame;
    bool taken = false;

    int map(const char *name) const { return bpf_object__find_map_fd_by_name(object.get(), name); }
    void load(const std::string &pins);
    void attach(const std::vector<std::string> &interfaces) const;
    static int take_one(void *context, void *data, size_t size);
};

void gate::parts::load(const std::string &pins) {
    libbpf_set_print(keep_words);
    last_words.clear();
    object.reset(bpf_object__open_mem(OBJECT, sizeof OBJECT, nullptr));
    if (!object)
        throw failure("the gate's program can't be read", errno);
    bpf_map *one = nullptr;
    bpf_object__for_each_map(one, object.get()) {
        const std::string name = bpf_map__name(one);
        if (name != WORKBENCH)
            bpf_map__set_pin_path(one, (pins_folder(pins) + "/" + name).c_str());
    }
    if (const int error = bpf_object__load(object.get()); error != 0)
        throw std::runtime_error("the kernel refuses the gate (" + std::string(strerror(-error)) +
                                 "): " + last_words);
    verdicts = map("verdicts");
    limits = map("limits");
    counts = map("counts");
    settings = std::make_unique<settings_view>(map("settings"), PROT_READ | PROT_WRITE);
    ring.reset(ring_buffer__new(map("copies"), take_one, this, nullptr));
    if (!ring)
        throw failure("the gate's copies", errno);
}

void gate::parts::attach(const std::vector<std::string> &interfaces) const {
    std::vector<int> attached;
    const std::pair<gate_direction, const char *> programs[] = {{GATE_UP, GATE_PROGRAM_UP},
                                                                {GATE_DOWN, GATE_PROGRAM_DOWN}};
    for (const std::string &name : interfaces) {
        const auto if_index = static_cast<int>(if_nametoindex(name.c_str()));
        try {
            if (if_index == 0)
                throw std::runtime_error("there is no interface " + name);
            const bool there = !filters_at(if_index, GATE_UP).empty();
            for (const auto &[direction, program] : programs)
                attach_gate(
                    name, if_index, direction,
                    bpf_program__fd(bpf_object__find_program_by_name(object.get(), program)));
            if (!there)
                attached.push_back(if_index);
        } catch (const std::runtime_error &) {
            for (const int begun : attached)
                detach_gate(begun);
            throw;
        }
    }
}

int gate::parts::take_one(void *context, void *data, size_t size) {
    auto &self = *static_cast<parts *>(context);
    const auto *bytes = static_cast<const uint8_t *>(data);
    if (size < sizeof self.head)
        return 0;
    memcpy(&self.head, bytes, sizeof self.head);
    const size_t captured = std::min<size_t>(self.head.captured, size - sizeof self.head);
    self.frame.assign(bytes + sizeof self.head, bytes + sizeof self.head + captured);
    self.taken = true;
    return -1; // one is enough for now
}

gate::gate(const std::string &pins, const std::vector<std::string> &interfaces)
    : parts_(std::make_unique<parts>()) {
    prepare_folder(pins);
    parts_->load(pins);
    if (parts_->settings->read(&gate_settings::generation) == 0) {
        parts_->settings->write(&gate_settings::generation, 1u);
        set_rules({});
    }
    parts_->attach(interfaces);
}

gate::~gate() = default;
gate::gate(gate &&) noexcept = default;

void gate::set_rules(const gate_rules &rules) {
    parts_->settings->write(&gate_settings::fail_closed, rules.fail_closed ? 1u : 0u);
    parts_->settings->write(&gate_settings::copies_per_second, rules.copies_per_second);
}

int gate::fd() const {
    return ring_buffer__epoll_fd(parts_->ring.get());
}

bool gate::take(gate_copy_seen &copy) {
    parts_->taken = false;
    ring_buffer__consume(parts_->ring.get());
    copy = {parts_->head, parts_->frame};
    return parts_->taken;
}

bool gate::decide(const gate_flow &flow, const gate_verdict &verdict) {
    return bpf_map_update_elem(parts_->verdicts, &flow, &verdict, BPF_ANY) == 0;
}

bool gate::set_limit(uint32_t bucket, const gate_limit &limit) {
    return bpf_map_update_elem(parts_->limits, &bucket, &limit, BPF_ANY) == 0;
}

void gate::beat() {
    parts_->settings->write(&gate_settings::beat_ns, __u64{monotonic_ns()});
}

void gate::ask_although_unattended(bool ask) {
    parts_->settings->write(&gate_settings::probing, ask ? 1u : 0u);
}

uint32_t gate::generation() const {
    return parts_->settings->read(&gate_settings::generation);
}

void gate::next_generation() {
    const uint32_t next = generation() + 1;
    parts_->settings->write(&gate_settings::generation, next != 0 ? next : 1u);
}

gate_counts gate::counts() const {
    return read_counts(parts_->counts);
}

void tear_down_gate(const std::string &pins) {
    for (const std::string &name : attached_interfaces())
        detach_gate(static_cast<int>(if_nametoindex(name.c_str())));
    const std::string folder = pins_folder(pins);
    for (const char *name : PINNED)
        unlink((folder + "/" + name).c_str());
    rmdir(folder.c_str());
    if (is_our_mount(pins) && !holds_folders(pins) && umount(pins.c_str()) != 0)
        throw failure("the gate's folder " + pins, errno);
}

gate_status look_at_gate(const std::string &pins) {
    gate_status status;
    const auto open = [&](const char *name) {
        return unique_fd(bpf_obj_get((pins_folder(pins) + "/" + name).c_str()));
    };
    const unique_fd settings_map = open("settings");
    if (!settings_map.valid() && errno == ENOENT)
        return status;
    const unique_fd verdicts = open("verdicts");
    const unique_fd counts = open("counts");
    if (!settings_map.valid() || !verdicts.valid() || !counts.valid())
        throw failure("the gate's pins in " + pins, errno);
    const settings_view settings(settings_map.get(), PROT_READ | PROT_WRITE);
    status.there = true;
    status.interfaces = attached_interfaces();
    status.rules.fail_closed = settings.read(&gate_settings::fail_closed) != 0;
    status.rules.copies_per_second = settings.read(&gate_settings::copies_per_second);
    status.generation = settings.read(&gate_settings::generation);
    if (const uint64_t beat_ns = settings.read(&gate_settings::beat_ns); beat_ns != 0)
        status.beat_age_ms =
            (static_cast<int64_t>(monotonic_ns()) - static_cast<int64_t>(beat_ns)) / 1'000'000;
    gate_flow flow = {};
    gate_verdict verdict = {};
    for (int more = bpf_map_get_next_key(verdicts.get(), nullptr, &flow); more == 0;
         more = bpf_map_get_next_key(verdicts.get(), &flow, &flow)) {
        if (bpf_map_lookup_elem(verdicts.get(), &flow, &verdict) == 0 &&
            verdict.action < std::size(status.verdicts))
            ++status.verdicts[verdict.action];
    }
    status.counts = read_counts(counts.get());
    return status;
}

} // namespace avcore
