#pragma once

// What the module's own parts call of each other.

namespace zeb {

void persist_set_root(const char *root);
void persist_release_queue();
void persist_release_retain();

}  // namespace zeb
