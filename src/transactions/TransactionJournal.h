// The append-only journal beside a transaction's record file: one line per
// route change, so that recording a route costs one short append instead of
// rewriting the record. Before a route is added its intent is written; once
// it is in the kernel and recorded, a commit; a failed add is abandoned.
// Loading replays the journal over the record; an intent with neither commit
// nor abandon is a route whose add may or may not have happened when the
// helper died.
//
// Lines (fields separated by one space, each field percent-escaped):
//   I <sequence> <route>   intent to add
//   A <sequence>           the intent's route was added and recorded
//   X <sequence>           the intent's add failed
//   D <route>              the route was deleted and is no longer the transaction's
// <route> is "R <destination> <gateway> <0|1> <interface> <transaction>"
// ("-" for an absent text, isIPv6 a boolean), or "P <XML property list>"
// for any other shape. A line without its line feed (cut short by a crash)
// and any line that does not parse are ignored.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "util/Value.h"

namespace korvo {

std::string journalIntentLine(std::uint64_t sequence, const Dictionary& operation);
std::string journalCommitLine(std::uint64_t sequence);
std::string journalAbandonLine(std::uint64_t sequence);
std::string journalDeleteLine(const Dictionary& operation);

// The record's activeRoutes as an array that can be changed: anything else
// stored there is replaced by an empty one.
Array& mutableActiveRoutes(Dictionary& record);

// Replays the journal over record (changing its activeRoutes as recording
// did) and returns the routes of intents that were neither committed nor
// abandoned and that the record does not list, in journal order.
std::vector<Dictionary> replayTransactionJournal(Dictionary& record, std::string_view journal);

}  // namespace korvo
