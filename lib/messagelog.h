// Inside of the message log, shared by its files: the record of a line, the settings, the way out.
#pragma once

#include <ka/message.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace ka {

// The layers of a network of hosts. The log stands below them: a process that takes part in a
// network fills this in. A stand-alone process is no slave, and nothing that it sends goes out.
struct message_network {
  bool (*is_slave)();
  // Sends a record to a host, -1 for all; returns whether it went out.
  bool (*send)(int host, const ka_message_record& record);
  // Tells the parallel-execution layer and the link layer that this process is about to end.
  void (*abort)(int code);
};
extern message_network network;

// Shows a record's line: log file, master, handler or standard error.
void output_message(ka_message_record& record, bool may_forward);

// Appends a line to the log file; a file that cannot be opened loses it without notice.
void log_to_file(const char* line);

// Sends the current settings to a host, -1 for all.
void send_verbosities(int host);

// Takes over the settings of a record, without telling other hosts.
void take_verbosities(const ka_message_record& record);
void take_level_mask(std::uint32_t mask);

// The position of a level's bit, 7 when it is not one of the seven levels.
std::size_t level_index(std::uint32_t level);

// Colors of a line on standard error, empty when color is off: by level index; slot 7 ends the
// line.
const char* color_of(std::size_t slot);

}  // namespace ka
