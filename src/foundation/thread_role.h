// Which library thread the caller runs on, and whether it is inside host code the library
// called. Operations that stop, start or resize the library's threads use it to refuse,
// at once, the calls that would make a thread wait for itself.
#pragma once

namespace zel {

enum class ThreadRole { HOST, WORKER, UPLOADER };

// Set once by a library thread when it starts; host threads stay HOST.
void set_thread_role(ThreadRole role);
ThreadRole thread_role();

// Held while a host callback runs on the calling thread (callbacks may nest).
class CallbackScope {
 public:
  CallbackScope();
  ~CallbackScope();
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;
};
bool in_host_callback();


}  // namespace zel
