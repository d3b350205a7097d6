// From the watch socket to the history: connects again and again, follows all flows, and has what
// they counted written every few seconds.
//
// What goes wrong is said once, and the rest goes on: without avcore the history and the metrics
// are there, and while the history can't be written what is counted waits in memory, within the
// ledger's bounds. Only before the history could be read for the first time nothing is counted, for
// nobody knows what was counted already.
#pragma once

#include "avwatch/client/watch_client.h"
#include "avwatch/export/due_flows.h"
#include "avwatch/export/exports.h"
#include "avwatch/history/history_settings.h"
#include "avwatch/history/ledger.h"
#include "avwatch/history/store.h"
#include "avwatch/metrics/metrics.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace avwatch {

class recorder {
public:
    // `others` outlive it: they get what it hears, and send behind its transactions. Throws refused
    // and foreign_history: another one writes, or the file is another program's.
    recorder(const history_settings &settings, std::string watch_socket, exports &others);

    int descriptor() const { return avcore_ ? avcore_->descriptor() : -1; }
    void listen(); // what has come on it, some of it at a time
    bool has_more() const { return has_more_; }

    int64_t due_ms() const {
        return std::min({connect_due_ms_, write_due_ms_, ask_due_ms_, tidy_due_ms_});
    }
    void serve(int64_t now_ms); // what is due
    // Writes what there is: the last thing to do. Waits for others who are at the file.
    void finish();

    std::string metrics() const;

private:
    struct taker; // a message by its kind

    bool open_history(int64_t now_ms);
    bool is_replaced() const;
    void connect(int64_t now_ms);
    bool is_greeted() const { return avcore_ && avcore_->greeting(); }
    void greet(const greeting_record &greeting, int64_t now_ms);
    void ask();
    void disconnect(const std::string &why);
    bool write(int64_t now_ms); // false: somebody else is at it
    void write_and_send(int64_t now_ms);
    void write_exports(int64_t now_ms);
    void tidy(int64_t now_ms);
    void complain_of(const database_error &error);
    void say_once(std::string &said, const std::string &what) const;

    const history_settings settings_;
    const std::string watch_socket_;
    exports &exports_;
    unique_fd lock_;
    ledger ledger_;
    std::optional<store> store_;
    totals committed_; // of a store that had to go
    ino_t file_inode_ = 0;
    bool is_restored_ = false;
    std::optional<watch_client> avcore_;
    bool has_more_ = false; // was read already
    uint32_t follow_asked_ = 0;
    uint32_t clients_asked_ = 0;
    std::vector<client_record> clients_;       // of an answer that goes on
    std::vector<client_record> heard_clients_; // of a whole one, to be written
    health health_;
    int64_t heard_ms_ = 0; // avcore's last message
    int64_t connect_due_ms_ = 0;
    int64_t write_due_ms_ = 0;
    int64_t ask_due_ms_ = 0;
    int64_t tidy_due_ms_ = 0;
    int64_t pass_due_ms_ = 0;
    int64_t clients_due_ms_ = 0;
    int64_t exports_due_ms_ = 0;                                // what they count,
    std::optional<std::vector<export_counts>> exports_written_; // and had
    std::string history_trouble_;                               // said already
    std::string avcore_trouble_;
};

} // namespace avwatch
