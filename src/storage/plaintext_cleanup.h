#pragma once

#include "storage/profile.h"
#include "storage/protected_files.h"

namespace qev::storage {

// Keeps plaintext subscriptions and configurations out of the data folder. The four steps run
// at every start in declaration order; removeRuntimePlaintextConfigs also runs after every
// core (re)start and at shutdown. Every step is silent and never fails outward.
class PlaintextCleanup {
 public:
  PlaintextCleanup(const Paths& paths, const ProtectedFiles& protectedFiles);

  // Runs the four steps in order.
  void runAtStartup() const;

  // "tmp.yaml" and "config.yaml" of older versions become their protected files (the plain
  // file always wins over an existing protected one) and are removed once written.
  void migratePlaintextConfigsIfNeeded() const;
  // Removes the plaintext copies written for the core; thread-safe, idempotent.
  void removeRuntimePlaintextConfigs() const;
  // Removes backup folders, plain YAML leftovers, test copies of older versions and the
  // temporary files of atomic writes that a crash interrupted (they may hold a plain copy).
  void cleanupLegacyPlaintextArtifacts() const;
  // Restricts credential and log files of every version to 0600, without reading them.
  void protectLegacySensitiveFiles() const;

 private:
  const Paths& paths_;
  const ProtectedFiles& protectedFiles_;
};

}  // namespace qev::storage
