#include "describe/cache_state.h"

#include "describe/storage_state.h"
#include "service/log.h"
#include "service/session.h"

namespace dirwell {

CacheState readCacheState(const std::string &fullPath, bool isFolder) {
  CacheState cache;
  if (isFolder) {
    EncryptedFolder encrypted;
    // The tool tells of the encrypted folder around a path; only that folder itself is shown as encrypted.
    if (readEncryptedFolderStatus(fullPath, encrypted) == 0 && encrypted.encryptedFolder == fullPath) {
      cache.folderIsEncrypted = encrypted.isEncrypted;
      cache.folderIsLocked = encrypted.lockState;
    }
  }
  cache.rootStatus = readRootStatus(fullPath);
  cache.failedCount = readFailedCount(fullPath);

  FileStatus status;
  if (readFileStatus(fullPath, isFolder, status) < 0) {
    log_error("[%s] get cache mount file status error", Session::instance().sid().c_str());
  }
  cache.fileStatus = status.state;
  cache.priority = status.priority;
  cache.uploadProgress = status.uploadPercent;
  return cache;
}

}  // namespace dirwell
