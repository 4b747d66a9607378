// Streams in which requests wait on the servers' disks.
#include <algorithm>

#include "link/Bounds.h"
#include "link/NatsClient.h"
#include "link/Wire.h"

namespace convey_link {
namespace {

constexpr size_t kReplicas = 3;

// Everything that is not said is as a new stream has it; one that is there is changed to it.
jsErrCode storeOf(jsCtx* js, const Configuration& configuration, const std::string& from,
                  natsStatus& status) {
    const std::string name = streamOf(configuration.realm, from);
    const std::string subject = "convey." + configuration.realm + ".*.keep." + from;
    const char* const subjects[] = {subject.c_str()};
    jsStreamConfig stream;
    jsStreamConfig_Init(&stream);
    stream.Name = name.c_str();
    stream.Subjects = const_cast<const char**>(
        subjects); // NOLINT(cppcoreguidelines-pro-type-const-cast): it only reads
    stream.SubjectsLen = 1;
    stream.Retention = js_WorkQueuePolicy;
    stream.Discard = js_DiscardNew;
    stream.MaxBytes = static_cast<int64_t>(bounds::kStreamBytes);
    stream.MaxMsgs = static_cast<int64_t>(bounds::kPending);
    stream.MaxAge = bounds::kStreamMilliseconds * 1'000'000;
    stream.Duplicates = bounds::kStreamRepeatMilliseconds * 1'000'000;
    stream.Replicas = static_cast<int64_t>(std::min(configuration.servers.size(), kReplicas));
    jsErrCode code{};
    status = js_AddStream(nullptr, js, &stream, nullptr, &code);
    if (status != NATS_OK && code == JSStreamNameExistErr) {
        status = js_UpdateStream(nullptr, js, &stream, nullptr, &code);
    }
    return code;
}

} // namespace

std::string streamOf(const std::string& realm, const std::string& link) {
    return "convey=" + realm + "=" + link; // no name has that sign
}

bool makeStream(const Configuration& configuration, const std::string& from,
                const std::vector<std::string>& to, std::string& error) {
    Owned<natsOptions> options;
    natsStatus status = makeNatsOptions(configuration, options);
    natsConnection* made = nullptr;
    status = status == NATS_OK ? natsConnection_Connect(&made, options.get()) : status;
    const Owned<natsConnection> connection(made);
    jsCtx* context = nullptr;
    status = status == NATS_OK ? natsConnection_JetStream(&context, made, nullptr) : status;
    const Owned<jsCtx> js(context);
    if (status == NATS_OK) {
        (void)storeOf(context, configuration, from, status); // the client's text says it
    }
    for (const std::string& link : to) {
        const std::string own = "convey." + configuration.realm + "." + link;
        std::string filter = own;
        filter.append(".keep.").append(from);
        const std::string subject = own + kStoredSubject;
        jsConsumerConfig consumer;
        jsConsumerConfig_Init(&consumer);
        consumer.Durable = link.c_str();
        consumer.DeliverSubject = subject.c_str();
        consumer.FilterSubject = filter.c_str();
        consumer.AckPolicy = js_AckExplicit;
        consumer.AckWait = bounds::kKeptAgainMilliseconds * 1'000'000;
        consumer.MaxAckPending =
            1; // the next one only when this one is done: so they keep their order
        const std::string stream = streamOf(configuration.realm, from);
        status = status == NATS_OK
                     ? js_AddConsumer(nullptr, context, stream.c_str(), &consumer, nullptr, nullptr)
                     : status;
    }
    error = status == NATS_OK ? std::string() : lastNatsError(status);
    return status == NATS_OK;
}

} // namespace convey_link
