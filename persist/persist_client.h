#pragma once

#include <cstddef>
#include <string_view>

#include "persist/persist.h"

// The three files of one client, without locks: the operations hold the module's own.

namespace zeb {

inline constexpr std::size_t PERSIST_PATH_SIZE = sizeof g_persist_root_path;

// The directories under the root, in the order in which they are made and written.
enum class persist_dir { session, subscription, message };
inline constexpr persist_dir PERSIST_DIRS[] = {persist_dir::session, persist_dir::subscription,
                                               persist_dir::message};

// Both give false when the path does not fit. The second also does when the identifier cannot be a file name:
// an identifier with "/" would leave its directory. Then the path is fit for a log line only.
bool persist_dir_path(persist_dir dir, char (&out)[PERSIST_PATH_SIZE]);
bool persist_client_path(persist_dir dir, std::string_view client_id, char (&out)[PERSIST_PATH_SIZE]);

// Starts a record that may have been used before; its 150 KiB are not cleared.
void persist_reset(persist_session *rec, std::string_view client_id);

// How far the file of offline messages is read: as a load gives it, all messages of it as a load gives each,
// or all of it as it is, for whoever is going to write it again.
enum class queue_extent { client, replay, whole };

struct load_result {
    bool found;        // some file could be opened
    bool queue_known;  // false: there are offline messages, perhaps, that could not be read
};
load_result persist_load_files(persist_session *rec, queue_extent extent);

// The offline messages alone, as a second look that is neither counted nor logged.
load_result persist_load_queue(persist_session *rec, queue_extent extent);

// persist_flush_single, which tells as well whether every file was written that had to be.
bool persist_write_files(const persist_session &rec, int kinds);

void persist_remove_files(std::string_view client_id);

}  // namespace zeb
