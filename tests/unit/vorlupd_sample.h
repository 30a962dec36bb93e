// An update with every kind of step, and the installation before and after it.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "modules/vorlupd/vorlupd.h"
#include "tests/support/installation.h"

namespace sample_update {

using Tree = std::vector<std::string>;

inline void Prepare(const Installation& installation) {
  WriteText(installation / "a.txt", "old a");
  WriteText(installation / "sub" / "b.txt", "old b");
  WriteText(installation / "pending" / "a.txt", "new a");
  WriteText(installation / "pending" / "fresh" / "c.txt", "new c");
  WriteText(installation / "pending" / "sub" / "b.txt", "new b");
}
inline Tree Old() { return {"a.txt=old a", "sub\\", "sub\\b.txt=old b"}; }
inline Tree New() {
  return {"a.txt=new a", "fresh\\", "fresh\\c.txt=new c", "sub\\", "sub\\b.txt=new b"};
}
inline Tree Pending() {
  return {"pending\\",        "pending\\a.txt=new a",
          "pending\\fresh\\", "pending\\fresh\\c.txt=new c",
          "pending\\sub\\",   "pending\\sub\\b.txt=new b"};
}

// Everything but the update module.
inline Tree TreeOfInstallation(const Installation& installation) {
  Tree tree = TreeOf(installation.Path());
  std::erase_if(tree, [](const std::string& entry) { return entry.starts_with("vorlupd.dll="); });
  return tree;
}

// Without the folders that belong to updating.
inline Tree Rest(const Installation& installation) {
  Tree tree = TreeOfInstallation(installation);
  std::erase_if(tree, [](const std::string& entry) {
    return entry.starts_with("pending\\") || entry.starts_with("update.work\\");
  });
  return tree;
}

inline Tree WithPending(Tree tree, const Tree& pending) {
  tree.insert(tree.end(), pending.begin(), pending.end());
  std::sort(tree.begin(), tree.end());
  return tree;
}

inline bool RunUpdate(const Library& module) {
  return module.Name<decltype(UpdateBeforeClientService)>("UpdateBeforeClientService")() != FALSE;
}

}  // namespace sample_update
