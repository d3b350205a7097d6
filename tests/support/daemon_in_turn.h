// One daemon of several: its state stands in the one place while something is done with it.
#pragma once

#include "control/commands.h"
#include "control/records/commands.h"
#include "control/records/message.h"
#include "core/state/state.h"
#include "jornctl/client/client.h"
#include "packet/capture.h"
#include "packet/decode/decode.h"
#include "packet/process.h"
#include "support/frames.h"
#include "support/fresh_state.h"
#include "support/memory_file.h"
#include "support/saved_folder.h"

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class daemon_in_turn {
public:
    // Its files are there, with nothing in them.
    daemon_in_turn() { send({{CMD_WRITE_CFG_REQ, {}}, {CMD_WIFICALLING_INTF_CFG_REQ, {}}}); }
    ~daemon_in_turn() {
        send({{CMD_ARC_POLICY_FLUSH_REQ, {}},
              {CMD_WEB_POLICY_FLUSH_REQ, {}},
              {CMD_WIFICALLING_POLICY_FLUSH_REQ, {}}});
        state_->web_intf_list.release_all();
        state_->wificalling_intf_list.release_all();
    }
    daemon_in_turn(const daemon_in_turn &) = delete;
    daemon_in_turn &operator=(const daemon_in_turn &) = delete;

    void send(const std::vector<jornctl::command> &sent) {
        enter();
        for (const jornctl::command &each : sent)
            answer_to(each);
        leave();
    }

    std::string folder() const { return folder_.path_of(""); }

protected:
    void enter() {
        std::swap(*state_, jorn_state);
        std::swap(settings_, jorn_settings);
        std::swap(safe_search_, platform.safe_search);
        folder_.use();
        silence_log();
        jorn_settings.tm_engine_enabled = 1;
        jorn_pkt_processor = jorn_decode_eth_pkt;
    }
    void leave() {
        std::swap(*state_, jorn_state);
        std::swap(settings_, jorn_settings);
        std::swap(safe_search_, platform.safe_search);
    }

    static std::string answer_to(const jornctl::command &sent) {
        std::string message = jornctl::make_message(sent);
        const size_t size = message.size();
        message.resize(COMMAND_MESSAGE_SIZE);
        const memory_file answer;
        run_command(answer.fd(), message.data(), size);
        return answer.content();
    }

    static av_verdict verdict_on(const octets &frame_and_trailer) {
        const pcap_pkthdr header = capture_header(frame_and_trailer);
        capture_context context = {};
        jorn_pkt_callback(reinterpret_cast<uint8_t *>(&context), &header, frame_and_trailer.data());
        return platform.last_record;
    }

    saved_folder folder_;

private:
    std::unique_ptr<daemon_state> state_ = std::make_unique<daemon_state>();
    daemon_settings settings_ = {};
    std::map<std::string, uint32_t> safe_search_;
};
