// The current thread in reports.
#pragma once

namespace nthost::ke {

// From now on fatal reports and findings say which thread they come from and what it does.
void DescribeThreadsInReports();

} // namespace nthost::ke
