// The publisher's release in one command, and the check of a published
// directory as an agent would make it.
#pragma once
#include <functional>
#include <string>
#include <vector>

namespace update {

// release DIR [PREVIOUS...]: for every file DIR/update.ini names (by the
// indexed format's file lists, or by each file section's download_uri or
// name), writes its hash (in the type its hash line names, else the
// default) and size into the description; for each PREVIOUS directory
// that holds the same path with other bytes, makes a patch beside the file
// (PATH.DIGEST.patch, DIGEST the first 16 digits of the base's hash, which
// is a SHA-256: it only picks the patch) and writes its line, replacing
// every patch line the file had; a patch not
// smaller than its file is left out. The new description is written to
// update.ini.new and signed by sign_file (which writes PATH.sig and returns
// an exit status); only when that succeeds do both take the places of
// update.ini and update.ini.sig. Prints what it did; returns the exit
// status: 0 done, 1 failed (the description and its signature as they
// were), 2 a wrong command line.
int run_release(const std::vector<std::string>& arguments, const std::function<int(const std::string&)>& sign_file);

// Checks the files the description at path names in its directory: each
// there with its size and hash, each patch with its size and hash and made
// for the file's size; a patch whose base is found in one of the previous
// directories (at the file's path, with the base's hash) is applied and its
// result checked against the file's hash. Prints one line per finding and
// a summary; true when nothing was wrong.
bool verify_release(const std::string& path, const std::vector<std::string>& previous);

}  // namespace update
