// How a tool ends that gets no memory: with a line and exit status 1, wherever it was, in a thread
// or about to tell of another failure. Where nobody could catch the exception what the tool would
// put right at its end is left as it is, as by a kill.
#pragma once

inline constexpr char NO_MEMORY[] = "there is no memory left";

// To be called first. `program` outlives all.
void end_where_memory_does(const char *program);
