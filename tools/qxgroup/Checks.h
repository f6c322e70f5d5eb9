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

// A member of a group nested in the group: "unit1\data.kdg" and "PROG.kdp" for
// "unit1\data.kdg\PROG.kdp" (the innermost group holding it).
struct NestedMember {
  std::string group;
  std::string inner;
};

// The members of every group nested in `group` (any depth), from the component's XML listing.
std::vector<NestedMember> NestedMembers(const std::string& group);

// Names compare without regard to case; "/" stands for "\". A name with *, ? or [ is a
// wildcard, matched fnmatch-style against the whole member path ("unit1\*.kdp"); it reaches
// the members of a nested group when it has more parts than the group's path and its first
// parts match that path part for part ("unit1\data.kdg\*", "*\*.kdg\L*").
// A name that is a folder of the group stands for itself (after the members found).
MemberSelection SelectMembers(const std::vector<std::string>& members,
                              const std::vector<std::string>& patterns,
                              const std::vector<NestedMember>& nested = {});

// Whether a pattern could reach into a nested group (a wildcard with a folder part); only then
// is NestedMembers worth its listing.
bool ReachesNested(const std::vector<std::string>& patterns);

// True when removing `chosen` (members and folders, as SelectMembers gives them) would take
// every entry out of the group's list `members`: a folder takes what lies in it along.
bool LeavesEmpty(const std::vector<std::string>& members, const std::vector<std::string>& chosen);

// The group that removing `chosen` from `group` (whose list is `members`) would leave empty:
// `group` itself, or a group nested in it ("unit1\data.kdg"); empty when none would be. An
// old-style group keeps at least one member, and a zip-based group without entries is no
// longer a group, so such a removal is refused before anything moves.
std::string EmptiedGroup(const std::string& group, const std::vector<std::string>& members,
                         const std::vector<std::string>& chosen);

// Names left missing that are paths into folders or nested groups ("unit1\data.kdg\L1.mal")
// are asked of the component, which looks inside; those it finds move to `found`.
void FindNested(const std::string& group, MemberSelection& selection);

// Throws Failure, naming the file at fault, when the files cannot all go into one group made
// at `group`, or (unless `force`) when the name's extension is not the one that group has.
void CheckCreate(const std::string& group, const std::vector<std::string>& files, bool force);

}  // namespace qx::cli
