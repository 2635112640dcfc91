// The proxy backend: calls, fire-and-forget and event subscriptions of one proxy, over the
// ClientLink it shares with the other proxies of its service.
// Threading: any thread; the link's mutex guards its pending calls and subscriptions, samples
// are delivered on "someip-cb".
#include <algorithm>

#include "minfw/log.h"
#include "platform/someip/runtime_impl.h"
#include "platform/someip/serializer.h"

namespace platform::someip {

namespace {

// Pending calls of one connection above which abandoned ones are forgotten.
constexpr std::size_t kPendingSweep = 256;

// One proxy's calls and subscriptions. Threading: any thread (see above).
class SomeipProxyBackend final : public mw::ProxyBackend {
 public:
  SomeipProxyBackend(RuntimeImpl& rt, std::shared_ptr<ClientLink> link)
      : rt_(rt), link_(std::move(link)) {}
  ~SomeipProxyBackend() override {
    std::vector<std::string> members;
    {
      std::lock_guard<std::mutex> lock(link_->mutex);
      for (auto& s : link_->subs)
        if (s.owner == this)
          members.push_back(s.member);
    }
    for (auto& m : members)
      unsubscribe(m);
  }

  void call(mw::MemberKind kind, const std::string& member, const mw::Writer& input,
            std::unique_ptr<mw::ReplyReceiver> receiver) override {
    uint16_t id = 0;
    if (!methodId(*link_->iface, kind, member, id)) {
      MLOG_ERROR(kTag, link_->iface->name, " has no method ", member, " in the configuration");
      receiver->onError(mw::ErrorCode::kNotConfigured, member);
      return;
    }
    Serializer s;
    input(s);
    if (!s.ok()) {
      receiver->onError(mw::ErrorCode::kMalformedMessage, s.error());
      return;
    }
    Header h;
    h.serviceId = link_->key.service;
    h.methodId = id;
    h.clientId = rt_.clientId();
    h.sessionId = rt_.nextSession();
    h.interfaceVersion = link_->iface->majorVersion;
    h.messageType = MessageType::kRequest;
    auto bytes = encodeMessage(h, s.take());
    {
      std::lock_guard<std::mutex> lock(link_->mutex);
      if (link_->failed) {
        receiver->onError(mw::ErrorCode::kServiceNotAvailable, "connection lost");
        return;
      }
      if (link_->pending.size() >= kPendingSweep) {
        // Calls whose callers gave up and whose server never answered would pile up.
        for (auto it = link_->pending.begin(); it != link_->pending.end();)
          it = it->second->wanted() ? std::next(it) : link_->pending.erase(it);
      }
      auto& slot = link_->pending[h.sessionId];
      if (slot)  // a session id that wrapped onto a call never answered
        slot->onError(mw::ErrorCode::kTimeout, "session id reused");
      slot = std::move(receiver);
    }
    bool ok = true;
    rt_.sendTcp(link_->conn, bytes, &ok);
    if (!ok) {
      std::unique_ptr<mw::ReplyReceiver> r;
      {
        std::lock_guard<std::mutex> lock(link_->mutex);
        auto it = link_->pending.find(h.sessionId);
        if (it != link_->pending.end()) {
          r = std::move(it->second);
          link_->pending.erase(it);
        }
      }
      if (r)
        r->onError(mw::ErrorCode::kNetworkError, "send failed");
    }
  }

  mw::Result<void> fireAndForget(const std::string& method, const mw::Writer& input) override {
    uint16_t id = 0;
    if (!methodId(*link_->iface, mw::MemberKind::kMethod, method, id)) {
      MLOG_ERROR(kTag, link_->iface->name, " has no method ", method, " in the configuration");
      return mw::Result<void>::fromError(mw::ErrorCode::kNotConfigured, method);
    }
    Serializer s;
    input(s);
    Header h;
    h.serviceId = link_->key.service;
    h.methodId = id;
    h.clientId = rt_.clientId();
    h.sessionId = rt_.nextSession();
    h.interfaceVersion = link_->iface->majorVersion;
    h.messageType = MessageType::kRequestNoReturn;
    bool ok = true;
    rt_.sendTcp(link_->conn, encodeMessage(h, s.take()), &ok);
    if (!ok)
      return mw::Result<void>::fromError(mw::ErrorCode::kNetworkError, "send failed");
    return {};
  }

  mw::Result<void> subscribe(const std::string& member,
                             std::shared_ptr<mw::SampleReceiver> receiver) override {
    MemberIds ids;
    if (!eventIds(*link_->iface, member, ids)) {
      MLOG_ERROR(kTag, link_->iface->name, " has no event or field ", member,
                 " in the configuration");
      return mw::Result<void>::fromError(mw::ErrorCode::kNotConfigured, member);
    }
    bool first = false;
    {
      std::lock_guard<std::mutex> lock(link_->mutex);
      for (auto& s : link_->subs)
        if (s.owner == this && s.member == member)
          return {};  // already subscribed
      link_->subs.push_back(ClientLink::Sub{this, member, ids.id, ids.eventgroup, receiver});
      first = link_->groups[ids.eventgroup].users++ == 0;
      auto value = link_->fieldValues.find(ids.id);
      if (ids.isField && value != link_->fieldValues.end()) {
        auto payload = value->second;
        rt_.callbacks().post([receiver, payload] {
          Deserializer reader(*payload);
          receiver->onSample(reader);
        });
      }
    }
    if (first)
      rt_.subscribeGroup(link_, ids.eventgroup, true);
    return {};
  }

  void unsubscribe(const std::string& member) override {
    uint16_t group = 0;
    bool last = false;
    bool found = false;
    {
      std::lock_guard<std::mutex> lock(link_->mutex);
      auto it = std::find_if(link_->subs.begin(), link_->subs.end(), [&](const ClientLink::Sub& s) {
        return s.owner == this && s.member == member;
      });
      if (it == link_->subs.end())
        return;
      found = true;
      group = it->eventgroup;
      link_->subs.erase(it);
      auto g = link_->groups.find(group);
      if (g != link_->groups.end() && --g->second.users == 0) {
        link_->groups.erase(g);
        last = true;
      }
    }
    if (found && last)
      rt_.subscribeGroup(link_, group, false);
  }

  mw::SubscriptionState subscriptionState(const std::string& member) const override {
    std::lock_guard<std::mutex> lock(link_->mutex);
    for (auto& s : link_->subs) {
      if (s.owner == this && s.member == member) {
        auto g = link_->groups.find(s.eventgroup);
        return g == link_->groups.end() ? mw::SubscriptionState::kNotSubscribed : g->second.state;
      }
    }
    return mw::SubscriptionState::kNotSubscribed;
  }

 private:
  RuntimeImpl& rt_;
  std::shared_ptr<ClientLink> link_;
};

}  // namespace

std::unique_ptr<mw::ProxyBackend> makeProxyBackend(RuntimeImpl& rt,
                                                   std::shared_ptr<ClientLink> link) {
  return std::make_unique<SomeipProxyBackend>(rt, std::move(link));
}

}  // namespace platform::someip
