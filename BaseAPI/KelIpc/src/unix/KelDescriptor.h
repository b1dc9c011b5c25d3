#ifndef KEL_DESCRIPTOR_H
#define KEL_DESCRIPTOR_H

// Descriptors the library keeps stay off 0, 1 and 2: a daemon that closed its standard streams would
// otherwise get them, and its own printf (and our log lines) would land in a ring header.
class KelDescriptor {
public:
    // fd itself when above 2; otherwise a close-on-exec duplicate above 2, fd being closed. -1 (logged
    // under source and function, errno kept) when the duplicate fails, fd closed as well; -1 stays -1.
    static int AboveStdio(int fd, const char* source, const char* function);
};

#endif  // KEL_DESCRIPTOR_H
