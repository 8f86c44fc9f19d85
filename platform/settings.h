// Platform interface: the recorder's general settings.
#pragma once

#include <string>

#include "platform/export.h"

// A copy of the settings as they were when it was last loaded.
class VY_API VyGeneric {
 public:
  // load: read the settings at once.
  explicit VyGeneric(bool load);

  // Reads the settings anew. 0 on success, also when nothing was ever set (the defaults hold then); -1 when they cannot
  // be read, one of those below has the wrong type or the port is none (0 to 65535), then the copy is unchanged.
  int Reload();

  // The pairing with a central-management host.
  bool IsCmsPaired() const { return m_cmsPaired; }
  std::string GetCmsHostIp() const { return m_cmsHostIp; }
  int GetCmsHostPort() const { return m_cmsHostPort; }

 private:
  bool m_cmsPaired = false;
  std::string m_cmsHostIp;
  int m_cmsHostPort = 0;
};
