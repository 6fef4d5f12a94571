// Runs a program and prints the most memory that it held, in KB. Plain C inside: until the program starts, the memory
// of this one counts as the program's.
//
//     bench_peak PROGRAM [ARGUMENT...]

#include <cstdio>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const pid_t child = fork();
    if (child == 0) {
        execv(argv[1], argv + 1);
        _exit(127);
    }
    int status = 0;
    rusage used{};
    if (child < 0 || wait4(child, &status, 0, &used) != child) return 1;
    printf("peak_kb %ld\n", used.ru_maxrss);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
