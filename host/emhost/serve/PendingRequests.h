// What em-host serve remembers of the requests it delivered: just enough to
// write a late reply with its request's id, after the request's ack - and
// only as long as a reply can still come, so that a session of millions of
// requests keeps no more than the requests actually waiting.
//
// A request is forgotten
// - at its ack, when it was not queued (no reply follows);
// - at its reply;
// - when a later request is answered: the module works its one queue in
//   order, so every earlier request still waiting was refused or dropped;
// - when the module is stopped (DropAll): no reply comes after Stop.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

class CPendingRequests {
 public:
  // A request about to be delivered, with its line's "id" (compact JSON);
  // returns its tag.
  std::uint64_t Add(std::string id);
  // ModuleRequest has returned and the ack is out; queued: a reply follows.
  void Acknowledged(std::uint64_t tag, bool queued);
  // A reply for tag came: waits until its ack is out, then gives its id.
  // False (id untouched) for a tag not (or no longer) known.
  bool IdForReply(std::uint64_t tag, std::string& id);
  // The reply for tag is out: forgets it and every earlier request.
  void Replied(std::uint64_t tag);
  // The module was stopped.
  void DropAll();

  // Requests acknowledged as queued whose reply may still come.
  std::size_t Waiting();
  // Every request remembered (also those between delivery and ack).
  std::size_t Size();

 private:
  struct CState {
    std::string m_Id;
    bool m_Acknowledged = false;
  };

  std::mutex m_Mutex;
  std::condition_variable m_AckChanged;
  std::uint64_t m_NextTag = 1;
  std::map<std::uint64_t, CState> m_States;
  std::size_t m_Waiting = 0;
};
