// The numbers of the descriptors that the loop waits for.
#pragma once

// Gives a descriptor that the daemon opens itself a number above the capture's. select looks in the
// order of the numbers and stops registering with the descriptors once one is ready: under load,
// when the capture always is, those behind it cost a packet half as much. Returns the descriptor as
// it was when it can't be moved.
int behind_capture(int fd);
