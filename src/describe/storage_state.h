// Where the content of an entry is kept: the state of files on a cloud-cache mount, encrypted folders there, and links
// into the auto-tiering area. All of it is read-only. Nothing here fails or logs: what cannot be found out has its
// fallback value. Runs in the request's own process, with its user's rights, one thread.
//
// Each operation takes an entry; the form beside it takes the entry's full path from a caller that has it.
#pragma once

#include <cstdint>
#include <string>

#include "entry/resource_entry.h"

namespace dirwell {

// The synchronisation state of a file or folder. The caller hands it over as it is made here, all zero and empty; what
// the mount does not tell stays so. The codes are those of the tables in storage_state.cpp.
struct FileStatus {
  std::int32_t statusCode = 0;  // the mount service's own number, passed through
  std::int32_t state = 0;       // code of stateText
  std::int32_t dirtiness = 0;   // code of dirtinessText
  std::int32_t priority = 0;    // code of priorityText
  float uploadProgress = 0;     // percent
  std::string stateText;        // the next five: texts as the mount service writes them, UTF-8
  std::string dirtinessText;
  std::string errorType;
  std::string priorityText;
  std::string message;
  std::int32_t derivedStatus = 0;  // state and status code in one number; 7 and 8 are download and upload errors
  std::int32_t derivedPriority = 0;
  std::int32_t uploadPercent = 0;  // uploadProgress truncated toward zero; only while uploading
};

// The encrypted folder that a path lies in.
struct EncryptedFolder {
  std::int32_t isEncrypted = 0;  // 1
  std::int32_t lockState = 0;    // 0 open, 1 locked, -2 as the mount tool reports it
  std::string encryptedFolder;   // its path
};

// Fills `record` from the mount service's attribute on the entry. 0, or -1 for an empty path. An attribute that is
// missing, too long or not JSON leaves the record as it is, and so does each key of it that is missing or of another
// type.
int readFileStatus(const ResourceEntry &entry, bool isFolder, FileStatus &record);
int readFileStatus(const std::string &fullPath, bool isFolder, FileStatus &record);

// The state of the mount that the entry lies on: its number, 2000 where the mount reports no error, -1 when it cannot
// be told.
std::int32_t readRootStatus(const ResourceEntry &entry);
std::int32_t readRootStatus(const std::string &fullPath);

// How many files that mount failed to upload; 0 when it cannot be told, -1 for an empty path.
std::int32_t readFailedCount(const ResourceEntry &entry);
std::int32_t readFailedCount(const std::string &fullPath);

// Asks the mount tool for the encrypted folder that the entry lies in: 0 with `record` filled, or -1 with it untouched.
// Runs the tool.
int readEncryptedFolderStatus(const ResourceEntry &entry, EncryptedFolder &record);
int readEncryptedFolderStatus(const std::string &fullPath, EncryptedFolder &record);

// 1 when a link leads deeper into the auto-tiering area than to a folder directly inside it, else 0.
int isAutotierLink(const ResourceEntry &entry);
int isAutotierLink(const std::string &fullPath);

}  // namespace dirwell
