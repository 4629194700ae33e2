// Shared by the files of this room: the thread table's side of starting and ending a thread.
#pragma once

// Creates the thread key and the thread table and registers the calling thread as thread 0.
void ka_msg_early_init();
// Unregisters the calling thread and deletes what ka_msg_early_init made.
void ka_msg_late_exit();

namespace ka {

// While one stands, nobody who goes through ka_msg_tls_info looks at the calling thread's areas.
class HiddenAreas {
 public:
  HiddenAreas();
  ~HiddenAreas();
  HiddenAreas(const HiddenAreas&) = delete;
  HiddenAreas& operator=(const HiddenAreas&) = delete;

 private:
  bool were_hidden_;
};

}  // namespace ka
