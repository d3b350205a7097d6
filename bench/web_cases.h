// The cases of URL filtering: packets whose domain is looked for on the lists of a policy and whose
// categories are compared with it, by an agent that answers at once.
#pragma once

void register_web_cases();
