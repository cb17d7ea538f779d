// The FIAS link to the PMS: one TCP connection, framed records (STX text ETX).
//
// Contract:
//  - Only the main thread reads (fias_read_packet), connects and releases the
//    link's descriptor (fias_disconnect); it owns the descriptor.
//  - Any thread may write: every frame goes out whole, in one send() call made
//    under the link's write mutex (MSG_NOSIGNAL: a dead peer never raises
//    SIGPIPE), so frames of different threads never mix.
//  - A writer that gives up the link (fias_init_connection failing) only shuts
//    it down; the reader then returns -1 and the main thread releases it. So no
//    thread ever reads a descriptor that another has closed.
//  - The link globals are atomics shared by all threads.
#pragma once

#include <atomic>

#include "fias/packet.h"

extern std::atomic<int> fias_sock;       // -1 = no link
extern std::atomic<int> pms_connected;   // 1 once the PMS has sent "LA"
extern std::atomic<int> fias_connected;  // 1 once our description and "LA" went out

// Opens the link and sends "LS". Returns the socket or -1. `interface` is unused.
int fias_connect(const char* host, int port, const char* interface);

// Shuts down and closes `sock` if it is not negative. The shutdown wakes a
// reader blocked on it, but call it from the thread that reads the link.
void fias_disconnect(int sock);

// Frames and writes one record text. Returns the bytes written (text + 2) or -1.
int fias_send_raw_packet(int sock, const char* packet);

// Serialises and sends a packet; -1 on failure.
int fias_send_packet(int sock, const fias_packet_t* p);

// Reads one framed record into `packet` (NUL-terminated; the ETX stays as the
// last character). Returns the length before the ETX, -2 for a stray byte
// before STX (printing "Read code %x" on standard output for every byte read
// before the record), -1 for a read error or a link ended by a failed
// fias_init_connection. A record longer than maxlen - 1 is cut there. At end
// of stream it waits (one second per attempt, running the idle hook) and
// reads again without returning.
int fias_read_packet(int sock, char* packet, int maxlen);

// Sends "LD", one "LR" per record type and "LA"; sets fias_connected. 0, or -1
// when a record could not be written: the link is then shut down, its reader
// returns -1, and the descriptor is left for the main thread to release.
int fias_init_connection(int sock, const char* iftype);

// Sends "LA" with the current date and time.
int fias_send_la(int sock);

// Called once per wait while the reader sits at the end of the stream, so
// that the main thread can still act on pending signals there. May be null.
void fias_set_idle_hook(void (*hook)());
