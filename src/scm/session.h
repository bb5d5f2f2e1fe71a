#pragma once
// SCM type values, the acquisition groups, and the values of one run that
// every client run needs. The driver fills a ScmSession once and hands it
// down; nothing in scm/ reads run-wide settings of its own.

#include <cstdint>

#include "support/bintree.h"

// SCM type values selected by -c.
inline constexpr uint32_t kScmNone = 0;
inline constexpr uint32_t kScmCvs = 1;
inline constexpr uint32_t kScmCvsRep = 2;
inline constexpr uint32_t kScmClearCase = 4;
inline constexpr uint32_t kScmHarvest = 8;
inline constexpr uint32_t kScmSvn = 16;
inline constexpr uint32_t kScmVss = 32;
inline constexpr uint32_t kScmPerforce = 64;
inline constexpr uint32_t kScmSi = 128;
inline constexpr uint32_t kScmAccurev = 256;
inline constexpr uint32_t kScmMstf = 512;  // MSTF and TEAMPRISE
// Acquisition groups: a type belongs to a group when (type & mask) == type,
// so 0 belongs to every group and is tested against the listing mask first.
inline constexpr uint32_t kListingMask = 0x10395;
inline constexpr uint32_t kPerFileMask = 0x68;

// Default and largest bound of one client run, in seconds.
inline constexpr unsigned kDefaultClientTimeout = 1800;
inline constexpr unsigned kMaxClientTimeout = 4294967295u;

// What the SCM stage of one run is given. A plain record: the driver owns
// the texts and the trees and keeps them alive while the stage runs.
// `type` comes first, so the address of a session is also the address of
// its SCM type (the per-file walk passes the session as its argument).
struct ScmSession {
  uint32_t type = kScmNone;
  const char* user = nullptr;      // -u; null or empty: no credentials
  const char* password = nullptr;  // -p; null or empty: none
  Bintree* files = nullptr;        // the run's file tree (FileTree)
  Bintree* dirs = nullptr;         // directories already queried (DirTree)
  unsigned client_timeout = kDefaultClientTimeout;  // seconds per client run; 0 = no bound
};
