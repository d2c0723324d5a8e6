#include "Platform/AppService/RequestScheduler.h"

#include <utility>

#include "Platform/AppService/IncomingRequest.h"

namespace Quorvendale::Platform::Details {

bool RequestScheduler::mayRun(ClientId id, const Client& client) const {
    return client.running < runningPerClient_ && memory_.mayStart(id);
}

std::size_t RequestScheduler::joinLine(ClientId id, Client& client) {
    if (client.inLine || client.connections.empty() || !mayRun(id, client)) return 0;
    client.inLine = true;
    client.waitsForMemory = false;
    line_.push_back(id);
    return 1;
}

void RequestScheduler::forgetIfIdle(ClientId id) {
    const auto found = clients_.find(id);
    if (found == clients_.end()) return;
    const Client& client = found->second;
    if (client.running == 0 && client.connections.empty() && !client.inLine) clients_.erase(found);
}

std::size_t RequestScheduler::add(std::shared_ptr<IncomingRequest> request) {
    MutexLock lock(mutex_);
    const ClientId id = request->client;
    Connection& connection = connections_[request->channel->id()];
    ++connection.inFlight;
    Client& client = clients_[id];
    if (connection.queued.empty()) client.connections.push_back(request->channel->id());
    connection.queued.push_back(std::move(request));
    return joinLine(id, client);
}

std::shared_ptr<IncomingRequest> RequestScheduler::next(std::size_t& jobs) {
    jobs = 0;
    MutexLock lock(mutex_);
    while (!line_.empty()) {
        const ClientId id = line_.front();
        line_.pop_front();
        Client& client = clients_[id];
        client.inLine = false;
        if (!memory_.mayStart(id)) {
            client.waitsForMemory = true;
            continue;
        }
        std::shared_ptr<IncomingRequest> request;
        while (!request && !client.connections.empty()) {
            const ChannelId channel = client.connections.front();
            client.connections.pop_front();
            const auto found = connections_.find(channel);
            if (found == connections_.end() || found->second.queued.empty()) continue;
            request = std::move(found->second.queued.front());
            found->second.queued.pop_front();
            if (!found->second.queued.empty()) client.connections.push_back(channel);
        }
        if (!request) {
            forgetIfIdle(id);
            continue;
        }
        ++client.running;
        jobs = joinLine(id, client);
        return request;
    }
    return nullptr;
}

std::size_t RequestScheduler::finished(const IncomingRequest& request) {
    MutexLock lock(mutex_);
    Client& client = clients_[request.client];
    --client.running;
    const std::size_t jobs = joinLine(request.client, client);
    forgetIfIdle(request.client);
    return jobs;
}

std::size_t RequestScheduler::resume() {
    MutexLock lock(mutex_);
    std::size_t jobs = 0;
    for (auto& [id, client] : clients_) {
        if (client.waitsForMemory) jobs += joinLine(id, client);
    }
    return jobs;
}

bool RequestScheduler::answered(ChannelId channel) {
    MutexLock lock(mutex_);
    const auto found = connections_.find(channel);
    if (found == connections_.end() || found->second.inFlight == 0) return false;
    return found->second.inFlight-- == maximumInFlight;
}

bool RequestScheduler::mayReceive(ChannelId channel) const {
    return inFlight(channel) < maximumInFlight;
}

std::size_t RequestScheduler::inFlight(ChannelId channel) const {
    MutexLock lock(mutex_);
    const auto found = connections_.find(channel);
    return found == connections_.end() ? 0 : found->second.inFlight;
}

void RequestScheduler::drop(ChannelId channel) {
    std::deque<std::shared_ptr<IncomingRequest>> dropped;  // let go outside the lock
    MutexLock lock(mutex_);
    const auto found = connections_.find(channel);
    if (found == connections_.end()) return;
    dropped.swap(found->second.queued);
    connections_.erase(found);
}

}  // namespace Quorvendale::Platform::Details
