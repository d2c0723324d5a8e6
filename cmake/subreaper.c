/* Usage: subreaper PROGRAM [ARG...]
 *
 * Runs PROGRAM as a child subreaper. qemu-aarch64 7.2 refuses that prctl to
 * the ARM program it runs, and a test that waits for a bus-activated host
 * needs the orphaned host to become its child. The flag survives exec, so
 * `subreaper qemu-aarch64 TEST` gives the emulated test what it asked for. */
#include <stdio.h>
#include <sys/prctl.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) {
        fputs("usage: subreaper PROGRAM [ARG...]\n", stderr);
        return 127;
    }
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) perror("subreaper: prctl");
    execvp(argv[1], argv + 1);
    perror(argv[1]);
    return 127;
}
