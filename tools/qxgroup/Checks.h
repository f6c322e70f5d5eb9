// Checks made before a command touches anything: which members the names and wildcards stand
// for, and whether the files given to `create` make the group its name promises.
#pragma once

#include <string>
#include <vector>

namespace qx::cli {

// The group's members as the component lists them; Failure with its reason when it cannot.
std::vector<std::string> ListMembers(const std::string& group);

struct MemberSelection {
  std::vector<std::string> found;    // the group's own spelling, in the group's order, once each
  std::vector<std::string> missing;  // names and patterns that matched nothing
};

// Names compare without regard to case; "/" stands for "\". A name with *, ? or [ is a
// wildcard, matched fnmatch-style against the whole member path ("unit1\*.kdp").
// A name that is a folder of the group stands for itself (after the members found).
MemberSelection SelectMembers(const std::vector<std::string>& members,
                              const std::vector<std::string>& patterns);

// Names left missing that are paths into folders or nested groups ("unit1\data.kdg\L1.mal")
// are asked of the component, which looks inside; those it finds move to `found`.
void FindNested(const std::string& group, MemberSelection& selection);

// Throws Failure, naming the file at fault, when the files cannot all go into one group made
// at `group`, or (unless `force`) when the name's extension is not the one that group has.
void CheckCreate(const std::string& group, const std::vector<std::string>& files, bool force);

}  // namespace qx::cli
