/* Runs a command and writes what it took, its children included, as one line of JSON to a file.

   measure FILE COMMAND [ARGUMENT...]

   A program of its own because a child's peak memory is at least that of the process that it was forked from, which
   must therefore be small. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static double monotonic_seconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static double seconds(struct timeval time) { return (double)time.tv_sec + (double)time.tv_usec / 1e6; }

int main(int argc, char** argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: measure FILE COMMAND [ARGUMENT...]\n");
        return 2;
    }
    const double begun = monotonic_seconds();
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[2], argv + 2);
        perror(argv[2]);
        _exit(127);
    }
    int status = 0;
    struct rusage usage;
    memset(&usage, 0, sizeof usage);
    if (child < 0 || wait4(child, &status, 0, &usage) != child) {
        perror("measure");
        return 1;
    }
    const double ended = monotonic_seconds();
    FILE* file = fopen(argv[1], "w");
    if (file == NULL ||
        fprintf(file, "{\"process_seconds\": %.6f, \"process_processor\": %.6f, \"peak_kib\": %ld}\n",
            ended - begun, seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss) < 0 ||
        fclose(file) != 0) {
        perror(argv[1]);
        return 1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
