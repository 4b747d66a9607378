/* Convey in C: an application takes part in messaging, answers requests and sends them.
 *
 * The interface is in libconvey.so.2 and stays: what a program was built with here works with every
 * later version of it. No structure is shown, so none can grow; functions are added, never changed.
 *
 * Texts are UTF-8 and end with a NUL; one with a length may hold any byte but NUL, which arrives as
 * a line feed. A text that is returned belongs to the object that it was asked of and is good as
 * long as that, unless the function says that it is the caller's, who gives it to convey_text_free.
 * NULL for a text that comes in counts as empty.
 *
 * Failures: functions that make something give NULL when there is no memory; the others say what
 * they give. NULL for an object is a failure and no crash. Nothing is thrown, and no function of
 * the caller's may throw or jump out.
 *
 * Threads: any thread may call any function, but two threads never the same object at once, unless
 * the function says otherwise. Functions of the caller's run on the thread that pumps, with no lock
 * held, and may call everything here.
 *
 * Only `convey_...` and `CONVEY_...` names are used.
 */
#ifndef CONVEY_H
#define CONVEY_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define CONVEY_API __attribute__((visibility("default")))
#else
#define CONVEY_API
#endif

/* An application of this process: a name, a port, and functions for what comes in. */
typedef struct convey_application convey_application;
/* A message that is shown to a function, or that an outcome has. */
typedef struct convey_message convey_message;
/* The reply to one request, to be given once. */
typedef struct convey_reply convey_reply;
/* A request that is being put together, and one that was sent. */
typedef struct convey_request convey_request;
typedef struct convey_pending convey_pending;
/* How a request ended. */
typedef struct convey_outcome convey_outcome;
/* Several texts. */
typedef struct convey_list convey_list;

/* How a request ends, once. */
#define CONVEY_RESULT 0        /* the result is the text */
#define CONVEY_ERROR 1         /* the target could not: a code and a text */
#define CONVEY_TIMEOUT 2       /* no answer in time; the target may have handled it */
#define CONVEY_NOT_RUNNING 3   /* registered, and does not run; it was not sent */
#define CONVEY_NOT_INSTALLED 4 /* nobody has that name; it was not sent */
#define CONVEY_REFUSED 5       /* the target took or wanted no message; the text says more */
#define CONVEY_CANCELLED 6     /* the handle, the application or the layer has ended */

/* Codes of errors that are the layer's own; it uses 50 to 69, the rest is the applications'. */
#define CONVEY_CODE_REJECTED 53       /* the target refuses the message */
#define CONVEY_CODE_NOT_SENT 59       /* it was not sent; the text says why */
#define CONVEY_CODE_HANDLER_FAILED 61 /* the target's function has thrown */
#define CONVEY_CODE_TARGET_ENDED 62   /* the process that took it ended without an answer */
#define CONVEY_CODE_OUT_OF_MEMORY 63  /* here or at the target */
#define CONVEY_CODE_NOT_ANSWERED 64   /* the target let go of the reply */
#define CONVEY_CODE_TOO_MANY_OWED 65  /* the target owes too many replies */
#define CONVEY_CODE_NOT_HANDLED 66    /* nothing in the target takes this type */

/* The types of messages that the layer gives a meaning to and that programs use. */
#define CONVEY_TYPE_PLAIN "Tessaly" /* a request that says nothing else */
#define CONVEY_TYPE_LOG "Log"       /* a line of a log */

/* Called with a message. The message is good until the function returns; the reply is the
 * function's, which gives it to convey_reply_result, _error or _drop, then or later. */
typedef void (*convey_message_function)(const convey_message *message, convey_reply *reply,
                                        void *data);
/* Called once with the outcome of a request, which is good until the function returns. */
typedef void (*convey_outcome_function)(const convey_outcome *outcome, void *data);
/* Called once with `data` when its function will not be called any more. */
typedef void (*convey_data_function)(void *data);

/* The version of the library: "2.0.0". */
CONVEY_API const char *convey_version(void);

/* Applications. ------------------------------------------------------------------------------- */

/* Makes an application of that name (a specifier) and starts the layer when it is not started; the
 * last application to go stops it then. NULL without memory and when the name is no specifier. When
 * the name has an owner, the first of its instances that is free is taken. Making and freeing: one
 * thread at a time. */
CONVEY_API convey_application *convey_application_new(const char *specifier);
/* Ends it, also from within a function of its own: requests that are under way are cancelled, and
 * told so; replies that are owed become errors. */
CONVEY_API void convey_application_free(convey_application *application);
/* 1 when other processes reach it, else 0. */
CONVEY_API int convey_application_is_reachable(const convey_application *application);
/* The name under which they do. */
CONVEY_API const char *convey_application_name(const convey_application *application);

/* Has `function` called with each message of that type (CONVEY_TYPE_PLAIN: also those for whose
 * type there is no function; "": what is left then), in place of the one before. `free_data` (NULL
 * for none) is called with `data` when the function goes, and also when this fails. 1, or 0 without
 * memory. Any thread. */
CONVEY_API int convey_application_on(convey_application *application, const char *type,
                                     convey_message_function function, void *data,
                                     convey_data_function free_data);
/* Takes the function of a type out; 0 without one. Waits until no other thread is in it. */
CONVEY_API int convey_application_off(convey_application *application, const char *type);

/* The main loop: somebody has to pump. ---------------------------------------------------------- */

/* A descriptor for the main loop, one for the process: readable when there is something to do, and
 * then call convey_pump. To be watched only; it stays the layer's. -1 without one. */
CONVEY_API int convey_poll_descriptor(void);
/* Does what is to be done, without waiting; 1 when a message was handled. */
CONVEY_API int convey_pump(void);
/* The same; without anything to do it waits for so many milliseconds at most. */
CONVEY_API int convey_pump_or_wait(unsigned int milliseconds);
/* Pumps until convey_quit (0), SIGTERM or SIGINT (its number), or the layer has ended (-1). */
CONVEY_API int convey_run(void);
/* Ends convey_run, or its next call. Any thread; not from a handler of signals. */
CONVEY_API void convey_quit(void);

/* Messages. ------------------------------------------------------------------------------------- */

/* The body; `length` (NULL: not wanted) becomes its bytes without the NUL behind them. */
CONVEY_API const char *convey_message_body(const convey_message *message, size_t *length);
CONVEY_API const char *convey_message_type(const convey_message *message);
/* The specifiers of who sent it and to whom. */
CONVEY_API const char *convey_message_sender(const convey_message *message);
CONVEY_API const char *convey_message_target(const convey_message *message);
/* The number that the sender gave it. */
CONVEY_API unsigned int convey_message_number(const convey_message *message);
/* Seconds after which the sender waits no longer, 0 for unknown. */
CONVEY_API unsigned int convey_message_timeout(const convey_message *message);
/* 1 when the sender waits for a result, else 0. */
CONVEY_API int convey_message_wants_result(const convey_message *message);
/* The value of a header, NULL without it; and all of them, in the sender's order reversed. */
CONVEY_API const char *convey_message_header(const convey_message *message, const char *name);
CONVEY_API size_t convey_message_header_count(const convey_message *message);
CONVEY_API const char *convey_message_header_name(const convey_message *message, size_t index);
CONVEY_API const char *convey_message_header_value(const convey_message *message, size_t index);

/* All of a message by one call, for languages to which each call is dear. Copies texts that each end
 * with a NUL into `buffer`, as far as its `size` goes, and gives the bytes of all of them: the number,
 * the time-out and whether a result is wanted, as digits; type, sender, target and body; name and
 * value of each header, in the order of above. Later versions put nothing between these. */
CONVEY_API size_t convey_message_copy(const convey_message *message, char *buffer, size_t size);

/* Replies. Each of these three ends the handle, on any thread. ------------------------------------ */

/* Answers with a result, or with an error of a code but 0. 1, or 0 when that came too late: the
 * application has ended, or it owed too many replies. */
CONVEY_API int convey_reply_result(convey_reply *reply, const char *text, size_t length);
CONVEY_API int convey_reply_error(convey_reply *reply, int code, const char *text);
/* Answers with CONVEY_CODE_NOT_ANSWERED. */
CONVEY_API void convey_reply_drop(convey_reply *reply);
/* 1 while an answer is waited for; the handle stays. */
CONVEY_API int convey_reply_is_open(const convey_reply *reply);

/* Requests. ------------------------------------------------------------------------------------- */

/* A request to a target (a specifier), of type CONVEY_TYPE_PLAIN, with 60 seconds for the answer.
 * It is the caller's until it is given to convey_request_send, _wait, _post or _free. Freeing the
 * application before is allowed; the outcome is CONVEY_CANCELLED then. */
CONVEY_API convey_request *convey_request_new(convey_application *application, const char *target,
                                              const char *body, size_t length);
CONVEY_API void convey_request_free(convey_request *request);
/* 1, or 0 without memory. */
CONVEY_API int convey_request_set_type(convey_request *request, const char *type);
/* The same. What stands behind a line feed would arrive as a header of its own: the caller leaves
 * them out, and colons out of the name. */
CONVEY_API int convey_request_set_header(convey_request *request, const char *name,
                                         const char *value);
/* Has the target launched with these parameters when it does not run. */
CONVEY_API int convey_request_set_launch(convey_request *request, const char *parameters);
/* Rounded up to seconds; 0 for 60 seconds. Told one or two seconds later. */
CONVEY_API int convey_request_set_timeout(convey_request *request, unsigned int milliseconds);

/* Sends, and ends the request. `function` is called with the outcome on the thread that pumps (or
 * within this call, when there was nothing to send or no memory), then `free_data` (NULL for none)
 * with `data`. Waits for the target's port at most, for 10 seconds. The handle is the caller's, who
 * gives it to one of the next two. NULL without memory: nothing was sent, and the function has been
 * called with that. */
CONVEY_API convey_pending *convey_request_send(convey_request *request,
                                               convey_outcome_function function, void *data,
                                               convey_data_function free_data);
/* As convey_request_send when the target takes the request at once, which is nearly always: 1, and
 * `pending` (not NULL) gets the handle. Else 0, and nothing has happened: the request and `data` are
 * still the caller's, who goes on with convey_request_send, perhaps on another thread. Waits for
 * nothing: for threads that must not, as a main loop. Launches nothing. */
CONVEY_API int convey_request_try_send(convey_request *request, convey_outcome_function function,
                                       void *data, convey_data_function free_data,
                                       convey_pending **pending);
/* Cancels what is still open and ends the handle: the function is not called any more when this
 * returns and is not running (within it this returns at once), and `data` is free. */
CONVEY_API void convey_pending_cancel(convey_pending *pending);
/* Ends the handle; the request goes on. */
CONVEY_API void convey_pending_release(convey_pending *pending);
/* 1 while the outcome is not known, else 0. */
CONVEY_API int convey_pending_is_open(const convey_pending *pending);

/* Sends, ends the request, and pumps on this thread until the outcome is known. It is the caller's,
 * who frees it. */
CONVEY_API convey_outcome *convey_request_wait(convey_request *request);
CONVEY_API void convey_outcome_free(convey_outcome *outcome);
/* Sends without asking for an answer, and ends the request; 1 when it was handed over. */
CONVEY_API int convey_request_post(convey_request *request);
/* The same when the target takes it at once. Else 0, and the request is still the caller's, as with
 * convey_request_try_send. */
CONVEY_API int convey_request_try_post(convey_request *request);

/* One of CONVEY_RESULT to CONVEY_CANCELLED. */
CONVEY_API int convey_outcome_kind(const convey_outcome *outcome);
/* The code of an error and of what was not sent, else 0. */
CONVEY_API int convey_outcome_code(const convey_outcome *outcome);
/* The result, or the text of the error; `length` as convey_message_body. */
CONVEY_API const char *convey_outcome_text(const convey_outcome *outcome, size_t *length);
/* The reply with its headers, NULL when none came. */
CONVEY_API const convey_message *convey_outcome_message(const convey_outcome *outcome);

/* All of an outcome by one call, as convey_message_copy: the kind and the code as digits, the text
 * (empty for a result, which is the body of its message), and what that gives of the message. */
CONVEY_API size_t convey_outcome_copy(const convey_outcome *outcome, char *buffer, size_t size);

/* Applications of the user. These need an application of one's own, and say nothing without. ------ */

/* The specifiers of the registered ones, the caller's, who frees the list. */
CONVEY_API convey_list *convey_applications(void);
CONVEY_API size_t convey_list_count(const convey_list *list);
CONVEY_API const char *convey_list_at(const convey_list *list, size_t index);
CONVEY_API void convey_list_free(convey_list *list);

/* What a specifier is completed to, in lower case; and the path of it, empty when it is not
 * registered. The caller's. */
CONVEY_API char *convey_resolve(const char *specifier);
CONVEY_API char *convey_path(const char *specifier);
CONVEY_API void convey_text_free(char *text);
/* 1 or 0. Running: an application of that name has a port. */
CONVEY_API int convey_is_installed(const char *specifier);
CONVEY_API int convey_is_running(const char *specifier);
/* What the application says of `key` (NULL: whether it is there, "ECHO_RESPONSE") within so many
 * seconds, or a word on why it says nothing (docs/messages.md); answered by a thread of its own,
 * also while it is busy. `parameters` (NULL for none) go along. The caller's; waits. */
CONVEY_API char *convey_ping(const char *specifier, const char *key, int seconds,
                             const char *parameters);
/* Launches one that does not run, in front or `behind`; 1 when it was launched or runs. */
CONVEY_API int convey_launch(const char *specifier, const char *parameters, int behind);
/* Brings one to the front; 0 when it is not registered. */
CONVEY_API int convey_front(const char *specifier);
/* What this process was launched with, empty for nothing; and the state of the layer as text for
 * people. The caller's. */
CONVEY_API char *convey_launch_options(void);
CONVEY_API char *convey_diagnostics(void);

#ifdef __cplusplus
}
#endif

#endif
