/* peak_memory COMMAND...: run it and print its largest resident size in KiB. A small parent on purpose: a
 * child's figure begins with that of the process it was forked from. */
#include <fcntl.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    struct rusage usage;
    int status;
    pid_t child;

    if (argc < 2) return 2;
    child = fork();
    if (child == 0) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        execvp(argv[1], argv + 1);
        _exit(127);
    }
    if (child < 0 || wait4(child, &status, 0, &usage) < 0) return 1;
    printf("%ld\n", usage.ru_maxrss);
    return status == 0 ? 0 : 1;
}
