// The drives a real install of the engine sees, added to the process's drive
// list (platform/drive_provider.h) by the engine object when it is created:
// on Windows the system's volumes; on Linux simulated disks and real NTFS
// volumes named in <install dir>/volumes/. A host or test that wants other drives adds its
// own providers (or installs an Env that answers for its drives).
#ifndef GLIDEWELL_ENGINE_SYSTEM_DRIVES_H_
#define GLIDEWELL_ENGINE_SYSTEM_DRIVES_H_

namespace glidewell {

// Adds the system's providers once; later calls do nothing.
void addSystemDriveProviders();

}  // namespace glidewell

#endif  // GLIDEWELL_ENGINE_SYSTEM_DRIVES_H_
