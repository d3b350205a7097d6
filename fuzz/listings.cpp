// Listings, as a daemon, or whoever sits at its socket, answers them: refused, or read as JSON that
// can be written; and what holds of an answer's being whole or a refusal can be said of any text.
//
// The first byte is which listing; all of them come by a socket, as from a daemon.
#include "jornctl/client/listings.h"
#include "demand.h"
#include "jornctl/base/failure.h"

#include <chrono>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace jornctl;

// Answers whatever it is asked with one text.
class answering_daemon {
public:
    answering_daemon() {
        close(mkstemp(name_.sun_path));
        unlink(name_.sun_path);
        demand(bind(listener_, reinterpret_cast<sockaddr *>(&name_), sizeof name_) == 0 &&
               listen(listener_, 1) == 0);
        std::thread([this] { answer_all(); }).detach();
    }

    ordered_json listed(command_number command, const std::string &answer) {
        answer_ = answer;
        const client asker(name_.sun_path, std::chrono::seconds(20));
        if (listing_of(command).argument == listing_argument::NONE)
            return jornctl::listed(asker, command);
        const auto record = jornctl::listed(asker, command, std::string(4, '\0'));
        demand(record || !refusal_in(command, answer).empty());
        return record.value_or(ordered_json::object());
    }

private:
    void answer_all() {
        while (true) {
            const int asked = accept(listener_, nullptr, nullptr);
            char message[4'096];
            while (recv(asked, message, sizeof message, 0) > 0)
                continue;
            send(asked, answer_.data(), answer_.size(), MSG_NOSIGNAL);
            close(asked);
        }
    }

    int listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un name_ = {AF_UNIX, "/tmp/jorn_listings.XXXXXX"};
    std::string answer_; // written before somebody connects, read behind that
};

answering_daemon &daemon_at_socket() {
    static auto *one = new answering_daemon; // its thread runs on
    return *one;
}

void check(const listing &wanted, const std::string &text) {
    check_answer(text, wanted.command);
    const ordered_json read = wanted.parse(text);
    const std::string written = to_line(read);
    demand(written == to_line(ordered_json::parse(written)));
    demand(read.is_array() || read.is_object());
    demand(daemon_at_socket().listed(wanted.command, text) == read);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    const listing &wanted = listings()[data[0] % listings().size()];
    try {
        check(wanted, text);
    } catch (const refused &reason) {
        demand(reason.what()[0] != '\0');
    }
    const std::string refusal = refusal_in(wanted.command, text);
    demand(refusal.find_first_of("\n\t") == refusal.npos && refusal.size() <= text.size());
    return 0;
}
