// Command 25: the ARC UTP table with the policies of its entries and of the web's of the same ids.
#pragma once

// Writes the listing to a command connection. Returns 0.
int jorn_show_utp(int fd);
