// What somebody at the platform's end of the AV channel answers to the daemon: the answer to its
// question counts, and nothing else; no text leaves its buffer and no descriptor stays open.
//
// An input is datagrams, each with a byte before it:
//
//   1 a right head is put before it    2 and the question that they wait for goes out then
//   12 the page of names that goes with it: none, the one agreed, two that aren't
//   240 which question
#include "demand.h"
#include "pieces.h"
#include "platform/host/av_channel.h"
#include "platform/host/nameless.h"
#include "platform/psm.h"
#include "platform/psms.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

// The clock of the daemon's waits stands: no answer is late on a machine that has more to do.
std::chrono::steady_clock::time_point std::chrono::steady_clock::now() noexcept {
    return {};
}

namespace {

using bytes = std::vector<std::byte>;

constexpr size_t WAITING_MAX = 8; // datagrams; that the socket has room for
constexpr size_t DATAGRAM_MAX = sizeof(av_answer_head) + sizeof(roam_message) + 100;
constexpr unsigned PAGES_MAX = 10'000;
constexpr char CANARY = '\x7E';

int page_of(off_t size, int seals) {
    const int page = memfd_create("page", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    demand(ftruncate(page, size) == 0 && fcntl(page, F_ADD_SEALS, seals) == 0);
    return page;
}

// As agreed, of another size, with a seal less.
const int pages_to_send[] = {
    page_of(AV_NAME_PAGE_SIZE, AV_NAME_PAGE_SEALS),
    page_of(AV_NAME_PAGE_SIZE - 1, AV_NAME_PAGE_SEALS),
    page_of(AV_NAME_PAGE_SIZE, AV_NAME_PAGE_SEALS & ~F_SEAL_SHRINK),
};

class platform_end {
public:
    platform_end() {
        sockaddr_un name = {AF_UNIX, "/tmp/jorn_av_answer.XXXXXX"};
        const int reserved = mkstemp(name.sun_path);
        unlink(name.sun_path);
        const int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        demand(bind(listener, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0 &&
               listen(listener, 1) == 0);
        setenv(AV_SOCKET_VARIABLE, name.sun_path, 1);
        demand(psm_log_syslog(6, "") == 0); // connects, and has the first number
        fd_ = accept(listener, nullptr, nullptr);
        constexpr int room = 1 << 20;
        setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        unlink(name.sun_path);
        close(listener);
        close(reserved);
        // The library's own question for a page, which is asked but once.
        for (const av_op op : {av_op::name_page, av_op::dnscache_get_name}) {
            const av_answer_head refusal = {{op, ++seq_}, -1};
            const auto *first = reinterpret_cast<const std::byte *>(&refusal);
            say({first, first + sizeof refusal}, -1);
        }
        seq_ = 0;
        uint32_t word = 0;
        demand(psms_dnscache_get_dn_by_ip(1, nullptr, 0, &word, &word, &word) == -1);
    }

    void say(const bytes &datagram, int descriptor) {
        iovec piece = {const_cast<std::byte *>(datagram.data()), datagram.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control = {};
        msghdr message = {};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        if (descriptor >= 0) {
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            cmsghdr *head = CMSG_FIRSTHDR(&message);
            *head = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
            memcpy(CMSG_DATA(head), &descriptor, sizeof descriptor);
        }
        demand(sendmsg(fd_, &message, MSG_DONTWAIT) == static_cast<ssize_t>(datagram.size()));
    }

    // The head of the next question, when the last one has come.
    uint32_t next_seq() {
        std::array<std::byte, DATAGRAM_MAX> datagram;
        ssize_t received;
        while ((received = recv(fd_, datagram.data(), datagram.size(), MSG_DONTWAIT)) > 0) {
            av_message_head head;
            demand(static_cast<size_t>(received) >= sizeof head);
            memcpy(&head, datagram.data(), sizeof head);
            demand(head.seq == seq_++);
        }
        return seq_;
    }

private:
    int fd_ = -1;
    uint32_t seq_ = 0;
};

// What the daemon has to make of what waits.
struct expected_answer {
    bool came = false;
    int32_t rc = -1;
    size_t body = 0;
    int descriptor = -1;
};

class asked_platform {
public:
    explicit asked_platform(platform_end &end) : end_(end) {}

    void stage(bytes datagram, bool has_right_head, av_op op, int descriptor) {
        const av_message_head head = {op, end_.next_seq()};
        const auto *first = reinterpret_cast<const std::byte *>(&head);
        if (has_right_head)
            datagram.insert(datagram.begin(), first, first + sizeof head);
        // An empty one would be the connection's end, and the next is a second away.
        if (datagram.empty() || datagram.size() > DATAGRAM_MAX || waiting_.size() > WAITING_MAX)
            return;
        end_.say(datagram, descriptor);
        waiting_.push_back({std::move(datagram), descriptor});
    }

    // With an answer behind all others, so that nobody waits for want of one.
    expected_answer expect(av_op op) {
        const int32_t refusal = -1;
        const auto *rc = reinterpret_cast<const std::byte *>(&refusal);
        const av_message_head wanted = {op, end_.next_seq()};
        bytes last(sizeof wanted);
        memcpy(last.data(), &wanted, sizeof wanted);
        last.insert(last.end(), rc, rc + sizeof refusal);
        end_.say(last, -1);
        waiting_.push_back({last, -1});
        while (true) {
            const auto [datagram, descriptor] = std::move(waiting_.front());
            waiting_.pop_front();
            if (datagram.size() < sizeof wanted ||
                memcmp(datagram.data(), &wanted, sizeof wanted) != 0)
                continue;
            expected_answer said = {datagram.size() >= sizeof(av_answer_head)};
            if (said.came) {
                memcpy(&said.rc, datagram.data() + sizeof wanted, sizeof said.rc);
                said.body = datagram.size() - sizeof(av_answer_head);
                said.descriptor = descriptor;
            }
            return said;
        }
    }

private:
    platform_end &end_;
    std::deque<std::pair<bytes, int>> waiting_;
};

// A text that a call writes is whole and within the buffer.
struct guarded_text {
    std::array<char, 300> room;
    guarded_text() { room.fill(CANARY); }
    void check(size_t size) const {
        demand(size == 0 || memchr(room.data(), '\0', size) != nullptr);
        demand(std::all_of(room.begin() + static_cast<ptrdiff_t>(size), room.end(),
                           [](char c) { return c == CANARY; }));
    }
};

void ask_for_flows(asked_platform &platform) {
    const expected_answer said = platform.expect(av_op::rflow_get_roam);
    const roam_notify notify = {};
    const auto flows = std::make_unique<roam_flow[]>(ROAM_FLOWS_MAX);
    int count = -1;
    const int rc = psms_rflow_get_roam(&notify, flows.get(), &count);
    demand(said.came ? said.rc == 0 || rc == said.rc : rc == -1);
    demand(rc != 0 || (count >= 0 && count <= ROAM_FLOWS_MAX));
    demand(rc != 0 ||
           sizeof(uint32_t) + static_cast<size_t>(count) * sizeof(roam_flow) <= said.body);
}

void ask_for_name(asked_platform &platform) {
    const expected_answer said = platform.expect(av_op::dnscache_get_name);
    static uint32_t address_be = 0; // none is remembered
    guarded_text name;
    const unsigned size = ++address_be % 2 != 0 ? 65 : 255;
    uint32_t words[3] = {};
    const int rc = psms_dnscache_get_dn_by_ip(address_be, name.room.data(), size, &words[0],
                                              &words[1], &words[2]);
    demand(rc == (said.came ? said.rc : 0));
    name.check(rc == 0 ? size : 0);
    demand(said.body >= sizeof(av_name_answer) || (words[0] | words[1] | words[2]) == 0);
}

void ask_for_category(asked_platform &platform) {
    const expected_answer said = platform.expect(av_op::urlfilter_get_category);
    const urlf_request request = {};
    urlf_reply reply = {};
    reply.rest[0] = CANARY;
    const int rc = psm_urlfilter_get_category(&request, &reply);
    const bool is_short = said.came && said.rc == 0 && said.body < sizeof reply;
    demand(rc == (said.came && !is_short ? said.rc : -1));
    demand(rc == 0 || reply.rest[0] == CANARY);
}

// The value of a key, where there is one.
void ask_for_value(asked_platform &platform, unsigned which) {
    const expected_answer said = platform.expect(av_op::platform_value);
    const bool is_there = said.came && said.rc == 0 && said.body >= sizeof(av_value_answer);
    guarded_text text;
    int enable = -1;
    switch (which) {
    case 4:
        psm_bsp_getMACBase(text.room.data());
        return text.check(18);
    case 5:
        demand(psm_webroot_server_pgetName(nullptr, text.room.data(), 20) == (is_there ? 0 : -1));
        return text.check(is_there ? 20 : 0);
    case 6:
        demand(psm_sys_get_fw_version(text.room.data(), 30) == 0);
        return text.check(30);
    case 7:
        demand(psm_mem_support_tm() <= (is_there ? 1 : 0));
        return;
    case 8:
        demand((psm_jor_mem_support() | 1) == 1);
        return;
    default:
        psm_xact *xact = nullptr;
        demand(psm_beginXact(&xact) == 0 && psm_cancelXact(&xact) == 0);
        demand(psm_wlan_pgetAvcEn(nullptr, "wlan0", &enable) == 0);
        demand(is_there || enable == 0);
    }
}

// A page that isn't as agreed is none.
void ask_for_page(asked_platform &platform) {
    static unsigned pages = 0; // each stays mapped, for the daemon needs but one
    if (++pages > PAGES_MAX)
        return;
    const expected_answer said = platform.expect(av_op::name_page);
    const auto addresses = std::make_unique<nameless_addresses>();
    addresses->prepare();
    addresses->remember(1);
    demand(addresses->has(1) == (said.came && said.rc == 0 && said.descriptor == pages_to_send[0]));
    demand(!addresses->has(2));
}

av_op op_of(unsigned which) {
    constexpr av_op OPS[] = {av_op::rflow_get_roam, av_op::dnscache_get_name,
                             av_op::urlfilter_get_category, av_op::name_page};
    return which < std::size(OPS) ? OPS[which] : av_op::platform_value;
}

void ask(asked_platform &platform, unsigned which) {
    switch (which) {
    case 0:
        return ask_for_flows(platform);
    case 1:
        return ask_for_name(platform);
    case 2:
        return ask_for_category(platform);
    case 3:
        return ask_for_page(platform);
    default:
        return ask_for_value(platform, which);
    }
}

// The lowest number that is free.
int next_descriptor() {
    const int next = dup(STDERR_FILENO);
    close(next);
    return next;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static platform_end end;
    asked_platform platform(end);
    const int descriptors = next_descriptor();
    for (pieces input(data, size); !input.empty();) {
        const uint8_t how = input.byte();
        const auto message = input.message();
        const unsigned page = how >> 2 & 3;
        const unsigned which = how >> 4;
        platform.stage({message.begin(), message.end()}, (how & 1) != 0, op_of(which),
                       page != 0 ? pages_to_send[page - 1] : -1);
        if ((how & 2) != 0)
            ask(platform, which);
    }
    ask_for_category(platform); // drops what is left
    demand(next_descriptor() == descriptors);
    return 0;
}
