/* An application in C: answers each request with the time of day until SIGTERM; with a target it
 * asks that instead, and prints what comes back.
 * usage: clock SPECIFIER [TARGET BODY [TYPE]] */
#include <convey.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

static void answer(const convey_message* request, convey_reply* reply, void* data) {
    char text[32];
    const time_t now = time(NULL);
    const size_t length = strftime(text, sizeof text, "%H:%M:%S", localtime(&now));
    (void)data;
    if (strcmp(convey_message_body(request, NULL), "drop") == 0) {
        convey_reply_drop(reply);
    } else if (strcmp(convey_message_body(request, NULL), "fail") == 0) {
        (void)convey_reply_error(reply, 7, "failed as asked");
    } else {
        (void)convey_reply_result(reply, text, length);
    }
}

static int ask(convey_application* clock, char** argv, int argc) {
    static const char* const kinds[] = {"result",        "error",   "timeout",  "not running",
                                        "not installed", "refused", "cancelled"};
    convey_request* const request = convey_request_new(clock, argv[2], argv[3], strlen(argv[3]));
    convey_outcome* outcome;
    int kind;
    if (argc == 5) {
        (void)convey_request_set_type(request, argv[4]);
    }
    outcome = convey_request_wait(request);
    kind = convey_outcome_kind(outcome);
    printf("%s %d %s\n", kinds[kind], convey_outcome_code(outcome),
           convey_outcome_text(outcome, NULL));
    convey_outcome_free(outcome);
    return kind == CONVEY_RESULT ? 0 : 1;
}

int main(int argc, char** argv) {
    convey_application* clock;
    sigset_t requests; /* to end: kept for convey_run, before any thread is started */
    int status = 0;
    sigemptyset(&requests);
    sigaddset(&requests, SIGTERM);
    sigaddset(&requests, SIGINT);
    if (argc == 2) {
        sigprocmask(SIG_BLOCK, &requests, NULL);
    }
    clock = argc == 2 || argc == 4 || argc == 5 ? convey_application_new(argv[1]) : NULL;
    if (!convey_application_is_reachable(clock)) {
        fputs("usage: clock SPECIFIER [TARGET BODY [TYPE]]\n", stderr);
        convey_application_free(clock);
        return 2;
    }
    if (argc > 2) {
        status = ask(clock, argv, argc);
    } else {
        (void)convey_application_on(clock, CONVEY_TYPE_PLAIN, answer, NULL, NULL);
        printf("running as %s\n", convey_application_name(clock));
        fflush(stdout);
        status = convey_run() < 0;
    }
    convey_application_free(clock);
    return status;
}
