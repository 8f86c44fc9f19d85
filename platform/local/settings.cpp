#include "platform/settings.h"

#include "platform/local/settingsfile.h"

VyGeneric::VyGeneric(bool load) {
  if (load) Reload();
}

int VyGeneric::Reload() {
  constexpr int kMaxPort = 65535;
  Json::Value settings;
  VyGeneric loaded(false);
  const bool read = local::ReadSettings(settings) && local::ReadKey(settings, "cmsPaired", loaded.m_cmsPaired) &&
                    local::ReadKey(settings, "cmsHostIp", loaded.m_cmsHostIp) &&
                    local::ReadKey(settings, "cmsHostPort", loaded.m_cmsHostPort);
  if (!read || loaded.m_cmsHostPort < 0 || loaded.m_cmsHostPort > kMaxPort) return -1;
  *this = loaded;
  return 0;
}
