// The URL-filtering agent: answers op 35 of the AV channel from the list of categories and, where
// it is slow or down, goes on to answer late, as command 31 on the daemon's command socket.
//
// A slow agent knows a domain once its first answer went out late. One that is down learns nothing,
// and its late answers say that its server can't be reached.
//
// The daemon may be waiting for us while we send, or may be gone: nothing here blocks. One
// connection at a time, one write on it, and the next when the daemon has closed it. What waits is
// bounded, in number and time, and is one answer a flow key: the daemon asks again with every
// packet of a flow.
#pragma once

#include "avcore/base/messages.h"
#include "avcore/web/categories.h"
#include "shared/unique_fd.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace avcore {

struct url_agent_settings {
    bool present = false; // without an agent every question is answered with -1
    bool down = false;
    std::optional<int64_t> delay_ms; // of a slow agent's first answer about a domain
    std::string command_socket;
};

struct url_agent_counts {
    uint64_t sent = 0;
    uint64_t undelivered = 0; // no daemon took them
    uint64_t no_room = 0;     // too many were waiting
};

class url_agent {
public:
    static constexpr size_t MAX_WAITING = 256;
    static constexpr size_t MAX_KNOWN = 16'384;   // then it forgets them all
    static constexpr int64_t DOWN_DELAY_MS = 100; // when no delay is given

    url_agent(url_agent_settings settings, category_list categories);

    std::vector<std::byte> answer(const question &asked, int64_t now_ms);
    // What it would answer now; none: it wouldn't.
    std::optional<urlf_answer> answer_about(std::string_view domain) const;
    void bring_back() { settings_.down = false; }
    // `present`: as in the settings.
    void replace_categories(category_list categories, bool present) {
        categories_ = std::move(categories);
        settings_.present = present;
    }

    int fd() const { return connection_.get(); } // readable when the daemon is through with it
    int64_t next_tick_ms() const;
    void serve(int64_t now_ms);

    bool waiting() const { return !late_.empty() || connection_.valid(); }
    size_t late_answers() const { return late_.size(); }
    const url_agent_counts &counts() const { return counts_; }

private:
    struct late_answer {
        urlf_request request;
        int64_t due_ms;
    };

    bool is_late(std::string_view domain) const;
    void answer_later(const urlf_request &request, int64_t now_ms);
    bool send(const urlf_request &request, int64_t now_ms);
    void learn(std::string_view domain);
    int64_t delay_ms() const { return settings_.delay_ms.value_or(DOWN_DELAY_MS); }

    url_agent_settings settings_;
    category_list categories_;
    std::set<std::string, std::less<>> known_; // domains, in lower case
    std::deque<late_answer> late_;             // the one due first at the front
    int64_t retry_ms_ = 0;                     // not before, for the daemon's backlog was full
    unique_fd connection_;
    int64_t connection_ends_ms_ = 0;
    url_agent_counts counts_;
};

} // namespace avcore
