// The FIAS link to the PMS: one TCP connection, framed records (STX text ETX).
//
// Contract:
//  - Only the main thread reads (fias_read_packet) and connects.
//  - Any thread may write: every frame goes out whole, in one write call made
//    under the link's write mutex, so frames of different threads never mix.
//  - The link globals are atomics shared by all threads.
#pragma once

#include <atomic>

#include "fias/packet.h"

extern std::atomic<int> fias_sock;       // -1 = no link
extern std::atomic<int> pms_connected;   // 1 once the PMS has sent "LA"
extern std::atomic<int> fias_connected;  // 1 once our description and "LA" went out

// Opens the link and sends "LS". Returns the socket or -1. `interface` is unused.
int fias_connect(const char* host, int port, const char* interface);

// Shuts down and closes `sock` if it is not negative.
void fias_disconnect(int sock);

// Frames and writes one record text. Returns the bytes written (text + 2) or -1.
int fias_send_raw_packet(int sock, const char* packet);

// Serialises and sends a packet; -1 on failure.
int fias_send_packet(int sock, const fias_packet_t* p);

// Reads one framed record into `packet` (NUL-terminated; the ETX stays as the
// last character). Returns the length before the ETX, -2 for a stray byte
// before STX, -1 for a read error. At end of stream it waits and reads again
// without returning (see fias_set_idle_hook).
int fias_read_packet(int sock, char* packet, int maxlen);

// Sends "LD", one "LR" per record type and "LA". 0, or -1 (socket closed).
int fias_init_connection(int sock, const char* iftype);

// Sends "LA" with the current date and time.
int fias_send_la(int sock);

// Called once per wait while the reader sits at the end of the stream, so
// that the main thread can still act on pending signals there.
void fias_set_idle_hook(void (*hook)());
