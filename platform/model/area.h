// The model's areas, in the order in which a run boots them; it checks and shuts them down in
// reverse. Boot makes an area empty, Check stops the run ("leak.…") when something is left over,
// Shutdown frees what the area still holds, whatever state an abandoned run left it in.
#pragma once

struct ModelArea {
  void (*Boot)();
  void (*Check)();
  void (*Shutdown)();
};

extern const ModelArea PoolArea;
extern const ModelArea ObjectArea;
extern const ModelArea RegistryArea;
extern const ModelArea EventLogArea;
extern const ModelArea RequestArea;  // packets and MDLs
extern const ModelArea DeviceArea;   // devices, names, links, interfaces
extern const ModelArea PnpArea;      // nodes and power
