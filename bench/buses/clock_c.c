/* clock_c serve | ask TIMES */
#include <convey.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static void answer(const convey_message* request, convey_reply* reply, void* data) {
    char text[32];
    (void)request;
    (void)data;
    sprintf(text, "%ld", (long)time(NULL));
    (void)convey_reply_result(reply, text, strlen(text));
}

static int ask(convey_application* diary) {
    convey_request* const request = convey_request_new(diary, "clock-1.0", "?", 1);
    convey_outcome* outcome;
    int kind;
    (void)convey_request_set_type(request, "time");
    outcome = convey_request_wait(request);
    kind = convey_outcome_kind(outcome);
    convey_outcome_free(outcome);
    return kind == CONVEY_RESULT;
}

int main(int argc, char** argv) {
    convey_application* const own = convey_application_new(argc == 2 ? "clock-1.0" : "diary-1.0");
    int status = 0;
    int times;
    if (argc == 2) {
        (void)convey_application_on(own, "time", answer, NULL, NULL);
        puts("running");
        fflush(stdout);
        status = convey_run();
    } else {
        for (times = atoi(argv[2]); times > 0 && status == 0; --times) {
            status = !ask(own);
        }
    }
    convey_application_free(own);
    return status;
}
