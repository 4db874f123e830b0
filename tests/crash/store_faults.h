#ifndef SAGLEME_TESTS_CRASH_STORE_FAULTS_H
#define SAGLEME_TESTS_CRASH_STORE_FAULTS_H

// Fail points inside a commit. The executable defines the functions of the store and of the system
// that a commit goes through; each passes a point and then does what it always does, unless the
// point is armed. So the kernel that is tested is the one that is shipped.
//
// Process-wide; any thread passes points. What is armed in a process is not armed in its parent.

#include <functional>
#include <string>
#include <vector>

namespace store_faults {

enum class Point {
  kBeforeApply,            // the first change that a batch makes in the store
  kBetweenRowsAndIndexes,  // the first change of an index after changes of rows
  kBeforeWriting,          // everything is applied, nothing is in the file
  kWriting,                // before each write of pages
  kBeforeSync,
  kAfterSync,
  kBeforeRoot,  // the write that makes the new state the current one
  kAfterRoot,
  kAfterCommit,  // the store has committed, nobody knows yet
};
inline constexpr Point kAllPoints[] = {Point::kBeforeApply,   Point::kBetweenRowsAndIndexes,
                                       Point::kBeforeWriting, Point::kWriting,
                                       Point::kBeforeSync,    Point::kAfterSync,
                                       Point::kBeforeRoot,    Point::kAfterRoot,
                                       Point::kAfterCommit};

// What a point does when it is armed: 0 goes on, else the operation fails with this code of the
// store or of the system; kShort: a write that takes the first half only.
using Action = std::function<int()>;
inline constexpr int kShort = -1;
inline constexpr int kForEver = -1;

// From the `nth` passage on, counted from 1 and from now, for so many passages. Any point armed
// before is no more.
void Arm(Point point, int nth, Action action, int times = 1);
void Disarm();
// Since the last Arm or Disarm: how often the armed point has acted.
int Acted();

// Ends the process at once, as kill -9 does.
int Kill();

// Syncs of data files since the process began.
int Syncs();
// The directories that were synced since the process began, each as often as it was.
std::vector<std::string> SyncedDirectories();

}  // namespace store_faults

#endif
