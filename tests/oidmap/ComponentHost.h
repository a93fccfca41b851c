// The module's components over hostsim, without the module object: a bare CExtensionModule
// started on a SimHost sends for them (the host passes replies to its reply handler, which
// does nothing), one CHostLink over it, and the components wired as the module wires
// them. Tasks they queue are kept in `queued`.
#ifndef EM_TESTS_OIDMAP_COMPONENTHOST_H
#define EM_TESTS_OIDMAP_COMPONENTHOST_H

#include <vector>

#include "hostsim/SimHost.h"
#include "module/ExtensionModule.h"
#include "oidmap/CabinetDirectory.h"
#include "oidmap/HostLink.h"
#include "oidmap/LogCollector.h"
#include "oidmap/LogStore.h"
#include "oidmap/OidMapper.h"

namespace em_oidmap {

template <class Host = hostsim::SimHost>
struct ComponentHost {
  Host host;
  CExtensionModule base;
  std::vector<SipJson> queued;
  CHostLink link{base, [this](const SipJson& task) {
                   queued.push_back(task);
                   return true;
                 }};
  CCabinetDirectory cabinets{link};
  COidMapper mapper{link};
  CLogStore store{cabinets};
  CLogCollector collector{link, mapper, store};

  ComponentHost() {
    base.SetServerCabinet(0);
    base.Start(&host, host.Attach(&base));
  }
  // What the module's start does with them: the cabinet list, each cabinet's count
  // checks and cache, the table published.
  void StartUp() {
    mapper.BeginTable();
    cabinets.BuildCabinetList();
    for (uint32_t cabinet : cabinets.CabinetList()) {
      mapper.CheckCabinet(cabinet);
      store.InitCabinet(cabinet);
    }
    mapper.PublishTable();
  }
};

}  // namespace em_oidmap

#endif  // EM_TESTS_OIDMAP_COMPONENTHOST_H
