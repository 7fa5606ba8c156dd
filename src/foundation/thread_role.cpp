#include "foundation/thread_role.h"

namespace zel {

namespace {
thread_local ThreadRole t_role = ThreadRole::HOST;
thread_local int t_callback_depth = 0;
}  // namespace

void set_thread_role(ThreadRole role) { t_role = role; }

ThreadRole thread_role() { return t_role; }

CallbackScope::CallbackScope() { ++t_callback_depth; }

CallbackScope::~CallbackScope() { --t_callback_depth; }

bool in_host_callback() { return t_callback_depth > 0; }

}  // namespace zel
