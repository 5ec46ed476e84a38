// Plays a recording (the JSON-lines form) through the collector's socket,
// without root and without a capture back-end.
#ifndef WLC_REPLAY_H
#define WLC_REPLAY_H

#include <atomic>
#include <string>
#include <vector>

#include "action_record.h"

namespace wlc {

struct ReplayOptions {
    std::string file;
    std::string socketPath;
    double rate = 0;  // records per second; 0: as fast as the client takes them
    bool exitWhenDone = false;
};

// Reads the whole file first: a bad line is reported with its number and
// nothing is played. Empty lines and lines starting with '#' are skipped.
bool loadRecording(const std::string& file, std::vector<ActionRecord>& records, std::string& error);

// Serves the socket, waits for a client to subscribe, then sends every
// record to every subscribed client, losing none. Returns the process exit
// status; stop ends it early.
int runReplay(const ReplayOptions& options, const std::atomic<bool>& stop);

}  // namespace wlc

#endif
