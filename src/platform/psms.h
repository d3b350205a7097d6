// The service library's operations: the kernel module's ioctl channel and its flow table.
//
// Declarations only; psm.h says who supplies them.
#pragma once

extern "C" {

// Hands a record of `length` bytes down the ioctl channel of the kernel's application-visibility
// module. Command 8 with argument 0 takes a verdict of 232 bytes. The record is only read.
// Returns 0 when the record was delivered, nonzero otherwise.
int psms_wdl_ioctl(int command, int arg, unsigned int length, void *record);

// Makes the kernel's flow table forget the application policy of every flow. Returns 0 on success.
int psms_rflow_reset_app_policy();

// Switches application visibility on or off for a network device. Returns 0 when the kernel was
// told, nonzero otherwise.
int psms_av_set_dev_av(const char *ifname, int enable);

// Switches the kernel's DPI engine on or off. Returns 0 when the kernel was told, nonzero
// otherwise.
int psms_av_set_tm_en(int enable);
}
