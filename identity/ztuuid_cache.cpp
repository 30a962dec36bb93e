// CZTUUID's operations on the cache file. The service does without them and, because they stand in
// a file of their own, is linked without the tables of the CRC.
#include "identity/cachefile.h"
#include "identity/ztuuid.h"

bool CZTUUID::WriteCacheFile() { return WriteCache(CacheFolder, *this, LastError); }

bool CZTUUID::ReadCacheFile(unsigned char* payload173) {
  return ReadCache(CacheFolder, payload173, LastError);
}

bool CZTUUID::IsCacheCurrent() { return IsCacheOf(CacheFolder, *this, LastError); }
