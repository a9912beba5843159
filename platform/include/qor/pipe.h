// qor/pipe.h -- named message pipes.
//
// On Linux a pipe device is an entry in an in-process registry over pipe(2):
// pipeDevCreate() makes the kernel pipe, sized for the asked number of
// messages, and qorOsOpen() hands out one descriptor that both reads and
// writes it. Messages are fixed-size (4 bytes unless FIOSMSGS says otherwise)
// and a write of one message is atomic. The message-count ioctl (FIONMSGS)
// answers how many whole messages wait, from either side, so a writer can see
// the backlog before it writes.
#pragma once

#include <cstdint>

constexpr int FIONMSGS = 3;    // arg: int* receiving the number of messages waiting
constexpr int FIOSMSGS = 0x7f01;  // arg: the message size in bytes

constexpr int QOR_O_RDONLY = 0;
constexpr int QOR_O_WRONLY = 1;
constexpr int QOR_O_RDWR = 2;

// Creates the named pipe with room for nMessages messages of nBytes each.
// OK, or ERROR when the name exists already or the kernel refuses the size.
int pipeDevCreate(const char* name, int nMessages, int nBytes);
// Opens a pipe made by pipeDevCreate (mode: QOR_O_*). A descriptor, or ERROR.
int qorOsOpen(const char* name, int mode, int perm);
// The platform's ioctl: FIONMSGS and FIOSMSGS on pipe descriptors, anything
// else passed to the kernel. Returns OK / ERROR (errno set).
int qorIoctl(int fd, int request, long arg);
// Removes a pipe device (tests): closes its descriptors. OK or ERROR.
int pipeDevDelete(const char* name);
