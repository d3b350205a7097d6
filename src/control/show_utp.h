// Command 25: the user traffic profiles, with the names of their policies.
#pragma once

// Answers with the entries of the ARC UTP table in use; the web policy is that of the web table's
// entry of the same id. Returns 0.
int jorn_show_utp(int fd);
