// Runs in namespaces of its own: the service's path is the machine's.
#include "core/base/event_channel.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

class EventService {
public:
    EventService() {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, EVENT_SERVICE_PATH);
        if (bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
            ADD_FAILURE() << strerror(errno);
    }
    ~EventService() {
        close(fd_);
        unlink(EVENT_SERVICE_PATH);
    }
    // The next datagram; "" when there is none.
    std::string receive() {
        char datagram[4096];
        const ssize_t size = recv(fd_, datagram, sizeof datagram, MSG_DONTWAIT);
        return {datagram, size > 0 ? static_cast<size_t>(size) : 0};
    }

private:
    int fd_ = socket(AF_UNIX, SOCK_DGRAM, 0);
};

std::string datagram_of(const std::string &text) {
    const uint32_t word = 100;
    return std::string(reinterpret_cast<const char *>(&word), sizeof word) + text + '\0';
}

TEST(EventChannel, ServiceThatComesAndGoesCostsOneEventEach) {
    EXPECT_EQ(jorn_yrtevent("a: @@1"), 0);
    for (int round = 0; round < 2; ++round) {
        EventService service;
        for (const char *refused : {"<3>now:@@8003,x", "", static_cast<const char *>(nullptr)})
            EXPECT_EQ(jorn_yrtevent(refused), 0);
        EXPECT_EQ(jorn_yrtevent("b: @@2"), 1);
        EXPECT_EQ(service.receive(), datagram_of("b: @@2"));
        EXPECT_EQ(service.receive(), "");
    }
    EXPECT_EQ(jorn_yrtevent("c: @@3"), 0);
}

TEST(EventChannel, FullQueueIsAFailedSendAndNoWait) {
    EventService service;
    alarm(20); // a send that blocks ends the test
    int sent = 0;
    while (sent < 100'000 && jorn_yrtevent("full: @@1") == 1)
        ++sent;
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, 100'000);
    while (service.receive() != "")
        --sent;
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(jorn_yrtevent("room: @@2"), 1);
    alarm(0);
}

TEST(EventChannel, ALineIsCutAndSent) {
    char line[EVENT_LINE_SIZE];
    jorn_format_event(line, 3, 1'000'000'000, 8003, "URLF_DOWN", std::string(2000, 'x'));
    EXPECT_EQ(strlen(line), 1023u);
    EventService service;
    EXPECT_EQ(jorn_yrtevent(line), 1);
    EXPECT_EQ(service.receive(), datagram_of(line));
}

} // namespace
