#include "jornctl/documents/platform_facts.h"

#include "jornctl/base/complain.h"
#include "shared/av_questions.h"
#include "shared/unique_fd.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

namespace jornctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds PATIENCE{500}; // for all questions together

// One connection, with the time by which all has to be answered.
class av_connection {
public:
    av_connection() {
        const std::string_view path = av_socket_path();
        sockaddr_un address = {};
        if (path.size() >= sizeof address.sun_path)
            return;
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, path.data(), path.size());
        socket_ = unique_fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const auto *name = reinterpret_cast<const sockaddr *>(&address);
        is_open_ = connect(socket_.get(), name, sizeof address) == 0;
        if (!is_open_ && (errno == EACCES || errno == EPERM))
            complain("avcore isn't asked, for you may not use its socket " + std::string(path) +
                     ": " + strerror(errno));
    }

    // The answer's body; nothing where there is no answer, or one that says no.
    std::optional<std::vector<char>> ask(av_op op) {
        const av_message_head question = {op, ++seq_};
        is_open_ = is_open_ && send(socket_.get(), &question, sizeof question, MSG_NOSIGNAL) ==
                                   ssize_t{sizeof question};
        while (is_open_) {
            std::vector<char> answer(sizeof(av_answer_head) + AV_TOOL_ANSWER_MAX);
            answer.resize(receive(answer));
            av_answer_head head;
            if (answer.size() < sizeof head)
                continue;
            memcpy(&head, answer.data(), sizeof head);
            if (head.question.op != op || head.question.seq != seq_)
                continue;
            if (head.rc != 0)
                break;
            answer.erase(answer.begin(), answer.begin() + sizeof head);
            return answer;
        }
        return std::nullopt;
    }

private:
    // The size of the next message. Nothing more is asked once there was none.
    size_t receive(std::vector<char> &into) {
        const auto left = std::chrono::ceil<milliseconds>(deadline_ - steady_clock::now()).count();
        pollfd waiting = {socket_.get(), POLLIN, 0};
        const bool is_there = left > 0 && poll(&waiting, 1, static_cast<int>(left)) > 0;
        const ssize_t got = is_there ? recv(socket_.get(), into.data(), into.size(), 0) : 0;
        is_open_ = got > 0;
        return is_open_ ? static_cast<size_t>(got) : 0;
    }

    unique_fd socket_;
    steady_clock::time_point deadline_ = steady_clock::now() + PATIENCE;
    bool is_open_ = false;
    uint32_t seq_ = 0;
};

// Texts, each with a NUL behind it.
std::set<std::string> texts_in(std::string_view bytes) {
    std::set<std::string> texts;
    for (size_t end; (end = bytes.find('\0')) != std::string_view::npos;) {
        texts.emplace(bytes.substr(0, end));
        bytes.remove_prefix(end + 1);
    }
    return texts;
}

std::set<uint32_t> ids_in(uint64_t bits) {
    std::set<uint32_t> ids;
    for (uint32_t id = 0; id <= AV_UTP_ID_MAX; ++id) {
        if ((bits >> id & 1) != 0)
            ids.insert(id);
    }
    return ids;
}

std::optional<client_facts> clients_in(std::string_view bytes) {
    av_clients_answer given;
    if (bytes.size() < sizeof given)
        return std::nullopt;
    memcpy(&given, bytes.data(), sizeof given);
    return client_facts{texts_in(bytes.substr(sizeof given)), ids_in(given.utps),
                        ids_in(given.web_utps)};
}

} // namespace

platform_facts ask_platform() {
    platform_facts known;
    av_connection connection;
    if (const auto answer = connection.ask(AV_ASK_APPLICATIONS))
        known.applications = texts_in({answer->data(), answer->size()});
    if (const auto answer = connection.ask(AV_ASK_CLIENTS))
        known.clients = clients_in({answer->data(), answer->size()});
    return known;
}

} // namespace jornctl
