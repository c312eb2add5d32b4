// Message queues: no message is lost, made or overtaken, nobody is left waiting for what is there,
// and a queue goes away under its users without harm.
#include "explorer.h"
#include "internal.h"
#include "osaMsg.h"

#include <cerrno>

static constexpr int MESSAGES = 8;

static MSG_Q_ID queue;
static int sent[MESSAGES], got[MESSAGES]; // of each message
static int latest;                        // that was received
static bool dies;                         // the queue may go away
static int deletions;

static v2pt_mqueue_t* record()
{
    return reinterpret_cast<v2pt_mqueue_t*>(queue);
}

// A refused operation says why.
static void expect_reason(int wait)
{
    const bool gone = errno == S_objLib_OBJ_DELETED || errno == S_objLib_OBJ_ID_ERROR || errno == 0;
    EXPECT((dies && gone) || (wait == NO_WAIT && errno == S_objLib_OBJ_UNAVAILABLE) ||
           (wait > 0 && errno == S_objLib_OBJ_TIMEOUT));
}

static bool send(int message, int wait = WAIT_FOREVER, int pri = MSG_PRI_NORMAL)
{
    errno = 0;
    if (msgQSend(queue, reinterpret_cast<char*>(&message), sizeof message, wait, pri) != OK) {
        expect_reason(wait);
        return false;
    }
    sent[message]++;
    return true;
}

static bool receive(int wait = WAIT_FOREVER)
{
    int message = 0;
    errno = 0;
    const int bytes = msgQReceive(queue, reinterpret_cast<char*>(&message), sizeof message, wait);
    if (bytes != sizeof message) {
        EXPECT(bytes == ERROR);
        expect_reason(wait);
        return false;
    }
    EXPECT(message > 0 && message < MESSAGES);
    got[message]++;
    latest = message;
    return true;
}

static void receive_one()
{
    receive();
}

static void receive_two() // of one sender: in order
{
    if (receive()) {
        const int first = latest;
        EXPECT(!receive() || latest > first);
    }
}

static void receive_both() // of two senders
{
    receive();
    receive();
}

static void receive_in_time()
{
    receive(1);
}

static void send_one()
{
    send(1);
}

static void send_other()
{
    send(2);
}

static void send_two()
{
    send(1);
    send(2);
}

static void send_in_time()
{
    send(3, 1);
}

static void remove()
{
    errno = 0;
    const bool first = msgQDelete(queue) == OK;
    EXPECT(first || errno == S_objLib_OBJ_ID_ERROR);
    deletions += first ? 1 : 0;
}

static void remove_safely()
{
    deletions += msgQSafeDelete(&queue) == OK ? 1 : 0;
}

template <int CAPACITY, int HELD = 0> static void prepare()
{
    queue = msgQCreate(CAPACITY, sizeof(int), 0);
    for (int i = 0; i < HELD; i++) {
        send(MESSAGES - 2 + i);
    }
}

template <int CAPACITY, int HELD = 0> static void prepare_to_die()
{
    prepare<CAPACITY, HELD>();
    dies = true;
}

static void check_rest()
{
    EXPECT(record()->waitTasks == 0 && record()->guard.held == 0 && record()->guard.sleepers == 0);
    for (const queue_waiters_t& end : {record()->senders, record()->receivers}) {
        EXPECT(end.waiting == 0 && end.called == end.calls);
    }
}

// What was sent was received once or is there. A task that was deleted may have sent one that it
// did not live to count, or taken one along.
static void check_messages()
{
    int astray = 0;

    check_rest();
    while (receive(NO_WAIT)) {
    }
    EXPECT(msgQNumMsgs(queue) == 0);
    for (int i = 0; i < MESSAGES; i++) {
        EXPECT(got[i] <= 1);
        astray += got[i] != sent[i] ? 1 : 0;
    }
    EXPECT(astray <= (cut_short() ? 1 : 0));
    EXPECT(msgQDelete(queue) == OK);
}

static void check_deleted()
{
    EXPECT(deletions == 1 || cut_short());
    check_rest();
    if (msgQNumMsgs(queue) >= 0) {
        EXPECT(deletions == 0 && (record()->send_type & SEND_DELETED) == 0);
        EXPECT(msgQDelete(queue) == OK);
    }
    for (int i = 0; i < MESSAGES; i++) {
        EXPECT(got[i] <= 1 && (got[i] <= sent[i] || cut_short()));
    }
}

// A deleter that was deleted before it began leaves the others as they were.
static bool not_marked()
{
    return cut_short() && (record()->send_type & SEND_DELETED) == 0;
}

// Whoever was deleted left a message or a slot short.
static bool one_is_missing()
{
    return cut_short();
}

static constexpr int RECORD = 2; // a queue's record and the set of all, which stay

static const scenario queues[] = {
    {"queue.send-receive",
     prepare<1>,
     {{"receiver", receive_two}, {"sender", send_two}},
     check_messages,
     RECORD,
     one_is_missing},
    {"queue.two-receivers",
     prepare<2>,
     {{"receiver", receive_one}, {"other", receive_one}, {"sender", send_two, true}},
     check_messages,
     RECORD},
    {"queue.two-senders",
     prepare<1>,
     {{"one", send_one}, {"other", send_other}, {"receiver", receive_one, true}},
     check_messages,
     RECORD,
     nullptr,
     1},
    {"queue.time-out",
     prepare<1>,
     {{"hasty", receive_in_time}, {"sender", send_one}},
     check_messages,
     RECORD},
    {"queue.full-time-out",
     prepare<1, 1>,
     {{"hasty", send_in_time}, {"receiver", receive_one}},
     check_messages,
     RECORD},
    {"queue.hasty-receiver", // leaves a call to the patient one
     prepare<2>,
     {{"hasty", receive_in_time}, {"patient", receive_one}, {"sender", send_two, true}},
     check_messages,
     RECORD},
    {"queue.hasty-sender",
     prepare<1, 1>,
     {{"hasty", send_in_time}, {"patient", send_one}, {"receiver", receive_both, true}},
     check_messages,
     RECORD,
     one_is_missing},
    {"queue.urgent",
     prepare<1, 1>,
     {{"urgent", [] { send(1, WAIT_FOREVER, MSG_PRI_URGENT); }},
      {"normal", send_other},
      {"receiver", receive_both, true}},
     check_messages,
     RECORD},
    {"queue.delete",
     prepare_to_die<1>,
     {{"receiver", receive_one}, {"hasty", receive_in_time}, {"deleter", remove}},
     check_deleted,
     RECORD,
     not_marked},
    {"queue.delete-full",
     prepare_to_die<1, 1>,
     {{"sender", send_one}, {"deleter", remove}},
     check_deleted,
     RECORD,
     not_marked},
    {"queue.delete-by-two",
     prepare_to_die<1>,
     {{"receiver", receive_one}, {"one", remove}, {"two", remove}},
     check_deleted,
     RECORD},
    {"queue.delete-used",
     prepare_to_die<1>,
     {{"receiver", receive_one}, {"sender", send_one}, {"deleter", remove}},
     check_deleted,
     RECORD,
     not_marked},
    {"queue.delete-and-create", // the next one gets the record, which a latecomer may still use
     prepare_to_die<1>,
     {{"sender", send_one},
      {"deleter",
       [] {
           remove();
           queue = msgQCreate(1, sizeof(int), 0);
       },
       true}},
     [] {
         EXPECT(deletions == 1);
         check_rest();
         EXPECT(msgQNumMsgs(queue) <= sent[1] || cut_short());
         EXPECT(msgQDelete(queue) == OK);
     },
     RECORD},
    {"queue.safe-delete",
     prepare_to_die<1>,
     {{"one", remove_safely}, {"two", remove_safely}},
     [] {
         EXPECT(deletions == 1 || cut_short());
         if (queue != nullptr) {
             EXPECT(msgQDelete(queue) == OK);
         }
     },
     RECORD},
};

static const bool known = add_scenarios(queues);
