// The host's platform operations against a scripted platform: which questions about names go out.
// The library is a process of its own each time, for its state is the process's.
#include "platform/host/av_channel.h"
#include "platform/psms.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr unsigned LONGEST_S = 20; // of a faulty library

struct platform_script {
    // About the page.
    bool answers = true;
    int32_t rc = 0;
    unsigned descriptors = 1;
    off_t size = AV_NAME_PAGE_SIZE;
    int seals = AV_NAME_PAGE_SEALS;
    // When the word is raised.
    bool before_each_answer = false;
    bool when_policies_are_reset = false; // A has a name from then on
};

class scripted_platform {
public:
    explicit scripted_platform(const platform_script &script) : script_(script) {
        setenv(AV_SOCKET_VARIABLE, name_.sun_path, 1);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&name_), sizeof name_), 0);
        EXPECT_EQ(listen(listener_, 8), 0);
        const timeval longest = {LONGEST_S, 0};
        setsockopt(listener_, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
        EXPECT_EQ(ftruncate(memory_, script_.size), 0);
        word_ = static_cast<uint32_t *>(
            mmap(nullptr, AV_NAME_PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, memory_, 0));
        EXPECT_EQ(fcntl(memory_, F_ADD_SEALS, script_.seals), 0);
    }
    ~scripted_platform() {
        unlink(name_.sun_path);
        munmap(word_, AV_NAME_PAGE_SIZE);
        close(memory_);
        close(listener_);
    }

    // Serves one connection until its end or until so many questions were asked. Returns them: 'p'
    // for the page, of an address the letter whose code is its last octet.
    std::string serve(size_t most = SIZE_MAX) {
        const int fd = accept(listener_, nullptr, nullptr);
        std::string asked;
        std::array<char, 512> datagram;
        while (asked.size() < most && recv(fd, datagram.data(), datagram.size(), 0) > 0)
            take(fd, datagram.data(), asked);
        close(fd);
        return asked;
    }

private:
    void take(int fd, const char *datagram, std::string &asked) {
        av_answer_head head = {};
        memcpy(&head.question, datagram, sizeof head.question);
        std::string body;
        if (head.question.op == av_op::rflow_reset_app_policy) {
            knows_ = script_.when_policies_are_reset;
            *word_ += knows_;
        } else if (head.question.op == av_op::name_page) {
            asked += 'p';
            head.rc = script_.rc;
            say(fd, {{av_op::name_page, head.question.seq - 1}, 0}, "", 1); // another's
            if (script_.answers)
                say(fd, head, "", script_.descriptors);
        } else if (head.question.op == av_op::dnscache_get_name) {
            asked += datagram[sizeof head.question + 3];
            *word_ += script_.before_each_answer;
            av_name_answer answer = {};
            if (knows_ && memcmp(datagram + sizeof head.question, "\xC0\0\2A", 4) == 0)
                answer = {{1, 1, 1}, "a.example"};
            say(fd, head, {reinterpret_cast<const char *>(&answer), sizeof answer}, 2);
        }
    }

    void say(int fd, const av_answer_head &head, std::string_view body,
             unsigned descriptors) const {
        std::string bytes(reinterpret_cast<const char *>(&head), sizeof head);
        bytes += body;
        iovec piece = {bytes.data(), bytes.size()};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(2 * sizeof(int))> control = {};
        msghdr message = {};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = CMSG_SPACE(descriptors * sizeof(int));
        cmsghdr *rights = CMSG_FIRSTHDR(&message);
        *rights = {CMSG_LEN(descriptors * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
        const int both[] = {memory_, memory_};
        memcpy(CMSG_DATA(rights), both, descriptors * sizeof(int));
        EXPECT_GT(sendmsg(fd, &message, MSG_NOSIGNAL), 0);
    }

    static sockaddr_un make_name() {
        sockaddr_un name = {};
        name.sun_family = AF_UNIX;
        const std::string path = testing::TempDir() + "av" + std::to_string(getpid());
        path.copy(name.sun_path, sizeof name.sun_path - 1);
        return name;
    }

    const platform_script script_;
    sockaddr_un name_ = make_name();
    int listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    int memory_ = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    uint32_t *word_ = nullptr;
    bool knows_ = false;
};

// The library's process; its exit status is how many names it was given.
template <typename Act>
pid_t start(Act act) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(LONGEST_S);
        _exit(act());
    }
    return child;
}

int status_of(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

constexpr int WRONG = 100;

int ask(uint32_t address, unsigned size = 65) {
    char name[65] = "untouched";
    uint32_t words[] = {7, 7, 7};
    const int rc =
        psms_dnscache_get_dn_by_ip(htonl(address), name, size, &words[0], &words[1], &words[2]);
    const bool is_named = strcmp(name, "a.example") == 0;
    return rc == 0 && words[1] == is_named && (is_named || name[0] == '\0') ? is_named : WRONG;
}

int ask_all(const char *letters) {
    int sum = 0;
    for (; *letters != '\0'; ++letters)
        sum += ask(0xC0000200u + static_cast<uint8_t>(*letters));
    return sum;
}

int open_descriptors() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<int>(std::distance(begin(open), end(open)));
}

// A loaded machine may be late with an answer, and then other questions go out.
template <typename Run>
void expect_sooner_or_later(Run run, const std::string &asked, int names, const char *what) {
    auto seen = run();
    for (int tries = 5; tries > 0 && seen != std::pair(asked, names); --tries)
        seen = run();
    EXPECT_EQ(seen.first, asked) << what;
    EXPECT_EQ(seen.second, names) << what;
}

TEST(NamelessAddresses, AreRememberedUnderTheWordAlone) {
    const struct {
        const char *what;
        platform_script script;
        const char *asked = "pAABCAAB";
        int names = 0;
    } rows[] = {
        {"as agreed", {}, "pABC"},
        {"a name is learnt", {.when_policies_are_reset = true}, "pABCAAB", 2},
        {"learns while it answers", {.before_each_answer = true}},
        {"doesn't know the question", {.rc = -1, .descriptors = 0}},
        {"doesn't answer it", {.answers = false}},
        {"refuses", {.rc = -1}},
        {"no descriptor", {.descriptors = 0}},
        {"two descriptors", {.descriptors = 2}},
        {"another size", {.size = AV_NAME_PAGE_SIZE + 1}},
        {"it may shrink", {.seals = AV_NAME_PAGE_SEALS & ~F_SEAL_SHRINK}},
        {"the asker may write", {.seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL}},
    };
    for (const auto &row : rows) {
        const auto run = [&row] {
            scripted_platform platform(row.script);
            const pid_t library = start([] {
                const int before = open_descriptors();
                int names = ask_all("AAB");
                psms_rflow_reset_app_policy();
                names += ask_all("CAAB");
                return open_descriptors() == before + 1 ? names : WRONG;
            });
            std::string asked = platform.serve();
            return std::pair(asked, status_of(library));
        };
        expect_sooner_or_later(run, row.asked, row.names, row.what);
    }
}

constexpr uint32_t MANY = 3'000; // of which nearly all have room

int ask_about_many_twice() {
    int names = 0;
    for (uint32_t i = 0; i < MANY; ++i)
        names += ask(0xC0000300 + i) + ask(0xC0000300 + i);
    return names;
}

TEST(NamelessAddresses, AreForgottenWithTheWordAndWithTheConnection) {
    const auto run = [] {
        scripted_platform platform({.when_policies_are_reset = true});
        const pid_t library = start([] {
            int names = ask(0) + ask(0) + ask(0xC0000200, 1); // in which no name has room
            names += ask(0xC0000200) + ask_about_many_twice();
            psms_rflow_reset_app_policy();
            names += ask(0) + ask_about_many_twice(); // answered behind the raise
            const uint32_t connection = av_connection();
            while (av_connection() == connection || !av_connected()) {
                psms_rflow_reset_app_policy(); // sees whether the platform is gone
                usleep(1000);
            }
            return names + ask_about_many_twice();
        });
        const size_t first = platform.serve(1 + 5 + 2 * MANY).size();
        const size_t second = platform.serve().size();
        return std::pair(std::to_string(first) + ' ' + std::to_string(second), status_of(library));
    };
    expect_sooner_or_later(run, std::to_string(1 + 5 + 2 * MANY) + ' ' + std::to_string(1 + MANY),
                           0, "");
}

} // namespace
