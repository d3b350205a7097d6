// Op 5 of the AV channel, carried out by resolvers: for each interface and each UTP a folder with
// the files of the one resolver that serves it, written when the daemon has said all that it had
// to.
//
//    FOLDER/wlan0/hosts           192.0.2.1 www.google.com      a line a mapping
//    FOLDER/wlan0/dnsmasq.conf    local=/www.google.com/        no question about the name goes
//    FOLDER/utp-5/...                                           upstream, of whatever type
//                                 server=/*.www.google.com/#    those about names below it do
//
// A file is replaced whole, by renaming one whose name starts with ".", which dnsmasq overlooks.
// Names come from whoever connects, and become paths and lines: they are checked, and everything is
// bounded.
#pragma once

#include "platform/host/messages/av_messages.h"
#include "shared/unique_fd.h"

#include <cstdint>
#include <map>
#include <string>

namespace avcore {

class safe_search {
public:
    static constexpr size_t MAX_SIDES = 256;
    static constexpr size_t MAX_NAMES = 64; // of one side

    // Makes the folder where it is missing. Throws std::runtime_error.
    explicit safe_search(const std::string &folder);

    // Returns why it was refused; empty when it was taken.
    std::string take(const av_safesearch_setting &setting);
    uint64_t refused() const { return refused_; } // settings

    // Replaces the files of what has changed. Returns what failed; it is tried again with the
    // side's next change.
    std::string write();

private:
    struct resolver {
        std::map<std::string, uint32_t> mappings; // host to address, in network order
        bool changed = true; // and of a side that is new here an earlier run may have left files
    };

    std::string carry_out(const av_safesearch_setting &setting);
    std::string map_host(resolver &side, const av_safesearch_setting &setting);
    void write_side(const std::string &name, const resolver &side) const;

    std::string path_;
    unique_fd folder_;
    std::map<std::string, resolver> sides_;
    bool changed_ = false; // any of them
    uint64_t refused_ = 0;
};

// Throws std::runtime_error where nothing could be written there, and makes nothing.
void check_safe_search_folder(const std::string &folder);

} // namespace avcore
