#ifndef KEL_DATE_TIME_H
#define KEL_DATE_TIME_H

// Sleeps at least the given number of milliseconds; 0 or less returns at once. Signals do not shorten it.
__attribute__((visibility("default"))) void KelSleep(int milliseconds);

#endif  // KEL_DATE_TIME_H
