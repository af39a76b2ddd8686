// The hash of a download's target file, fed with each piece of the body once
// the file has taken it, so that the hash is done about when the transfer
// is. A thread of its own hashes behind the writes through a bounded buffer:
// a transfer faster than the hash waits only for room in the buffer, and one
// slower than it never waits.
#pragma once
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/hash_file.h"

namespace update {

// One per file, made by the download stage and handed to download_file,
// which keeps it describing exactly the bytes in the file: begin before each
// attempt, add for each piece written, discard when a write may have been
// lost, end after the attempt. Every operation runs on the update worker;
// the hash thread exists only between begin and end.
class body_hash_t {
 public:
  // type: the decorated hash or type text the file is compared with (see
  // HashFileChecker::CalcHash); name: the file's status entry, shown as
  // checking_file while a kept part of the file is read back.
  body_hash_t(const std::string& type, std::string name);
  ~body_hash_t();  // waits for the thread
  body_hash_t(const body_hash_t&) = delete;
  body_hash_t& operator=(const body_hash_t&) = delete;

  // Before an attempt that appends to path from offset (0: the file was
  // emptied), with the file open for writing: a state that has followed
  // every byte of the file and counts offset of them goes on; any other
  // starts anew from the file's first offset bytes, read back from path.
  // Takes the status lock for checking_file.
  void begin(const std::string& path, uint64_t offset);
  // From the write callback: bytes the file has just taken, in order. Waits
  // while the buffer is full. Ignored after discard.
  void add(const char* bytes, size_t count);
  // The file may not hold what was added (a short write, a stream in error,
  // a failed flush): the state counts for nothing until the next begin.
  void discard() { valid_ = false; }
  // After an attempt: waits until all that was added is hashed.
  void end();
  // After end: true with the decorated hash when the state is valid and
  // counts size bytes, the size of the file as it stands; the state is then
  // spent. False otherwise: the caller hashes the file itself.
  bool result(uint64_t size, std::string& hash);

 private:
  void hash_behind();  // the hash thread

  platform::running_hash_t hash_;  // the hash thread's while it runs, else the update worker's
  const std::string name_;
  bool valid_ = false;
  std::unique_ptr<char[]> buffer_;  // a ring; made at the first begin
  std::thread thread_;
  std::mutex lock_;
  std::condition_variable filled_;   // bytes to hash, or closing
  std::condition_variable drained_;  // room to add
  size_t first_ = 0;                 // guarded by lock_: where the bytes to hash begin
  size_t used_ = 0;                  // guarded by lock_: bytes to hash
  bool closing_ = false;             // guarded by lock_
};

}  // namespace update
