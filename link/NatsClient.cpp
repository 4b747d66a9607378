#include "link/NatsClient.h"

#include <algorithm>
#include <vector>

#include "link/Bounds.h"
#include "link/Wire.h"

namespace convey_link {
namespace {

constexpr int64_t kConnectMilliseconds = 2000;
// Of a stream, where there are so many servers.
constexpr size_t kReplicas = 3;

template <class Set>
void secure(const Configuration& configuration, natsOptions* options, Set& set) {
    set(natsOptions_SetSecure(options, true));
    if (!configuration.ca.empty()) {
        set(natsOptions_LoadCATrustedCertificates(options, configuration.ca.c_str()));
    }
    if (!configuration.certificate.empty()) {
        set(natsOptions_LoadCertificatesChain(options, configuration.certificate.c_str(),
                                              configuration.key.c_str()));
    }
    if (!configuration.host.empty()) {
        set(natsOptions_SetExpectedHostname(options, configuration.host.c_str()));
    }
}

// Everything that is not said is as a new stream has it; one that is there is changed to it.
natsStatus storeOf(jsCtx* js, const Configuration& configuration, const std::string& from) {
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
    const natsStatus status = js_AddStream(nullptr, js, &stream, nullptr, &code);
    return status != NATS_OK && code == JSStreamNameExistErr
               ? js_UpdateStream(nullptr, js, &stream, nullptr, nullptr)
               : status;
}

} // namespace

std::string natsErrorText(natsStatus status, const char* words) {
    const std::string name = natsStatus_GetText(status);
    return words == nullptr || *words == '\0' ? name : name + ": " + words;
}

std::string lastNatsError(natsStatus status) {
    natsStatus last = NATS_OK;
    const char* const text = nats_GetLastError(&last);
    return natsErrorText(status, last == status ? text : nullptr);
}

natsStatus makeNatsOptions(const Configuration& configuration, Owned<natsOptions>& options) {
    natsOptions* made = nullptr;
    natsStatus status = natsOptions_Create(&made);
    options.reset(made);
    const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
    std::vector<const char*> servers;
    for (const std::string& server : configuration.servers) {
        servers.push_back(server.c_str());
    }
    set(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())));
    set(natsOptions_SetName(made, ("convey-link " + configuration.name).c_str()));
    set(natsOptions_SetCustomInboxPrefix(made, ("_INBOX_" + configuration.name).c_str()));
    set(natsOptions_SetTimeout(made, kConnectMilliseconds));
    if (!configuration.user.empty()) {
        set(natsOptions_SetUserInfo(made, configuration.user.c_str(),
                                    configuration.password.c_str()));
    }
    if (!configuration.credentials.empty()) {
        set(natsOptions_SetUserCredentialsFromFiles(made, configuration.credentials.c_str(),
                                                    nullptr));
    }
    if (configuration.tls) {
        secure(configuration, made, set);
    }
    return status;
}

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
    status = status == NATS_OK ? storeOf(context, configuration, from) : status;
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
