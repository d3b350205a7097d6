// What the URL-filtering agent says too late for a packet: the category of a flow whose packet has
// already passed becomes a verdict on the flow, and whether the agent reaches its server is known
// from here alone.
//
// Five answers in a row that the server can't be reached raise an alarm, and decisions fall back
// until the first other answer, which ends the outage with a second alarm. While failures are
// counted no verdict goes out.
#pragma once

#include "webfilter/records/web.h"

// Command 31: takes one late answer. Returns 0.
int jorn_process_uf_agent_async_reply(const uf_agent_reply &late);
