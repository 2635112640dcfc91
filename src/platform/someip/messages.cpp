// SOME/IP messages above the connections: requests served by an offered service and their
// answers, answers matched to pending calls, notifications sent and received.
// Threading: received messages are handled on "someip-io", request handlers run on "someip-srv"
// and samples on "someip-cb"; notify() and responders send from any thread.
#include "minfw/log.h"
#include "platform/someip/runtime_impl.h"
#include "platform/someip/serializer.h"

namespace platform::someip {

namespace {

ReturnCode toReturnCode(mw::ErrorCode code) {
  switch (code) {
    case mw::ErrorCode::kUnknownService:
      return ReturnCode::kUnknownService;
    case mw::ErrorCode::kUnknownMethod:
      return ReturnCode::kUnknownMethod;
    case mw::ErrorCode::kMalformedMessage:
      return ReturnCode::kMalformedMessage;
    case mw::ErrorCode::kTimeout:
      return ReturnCode::kTimeout;
    case mw::ErrorCode::kServiceNotAvailable:
      return ReturnCode::kNotReachable;
    default:
      return ReturnCode::kNotOk;
  }
}

mw::ErrorCode toErrorCode(ReturnCode code) {
  switch (code) {
    case ReturnCode::kUnknownService:
      return mw::ErrorCode::kUnknownService;
    case ReturnCode::kUnknownMethod:
      return mw::ErrorCode::kUnknownMethod;
    case ReturnCode::kMalformedMessage:
      return mw::ErrorCode::kMalformedMessage;
    case ReturnCode::kTimeout:
      return mw::ErrorCode::kTimeout;
    case ReturnCode::kNotReachable:
      return mw::ErrorCode::kServiceNotAvailable;
    default:
      return mw::ErrorCode::kRemoteError;
  }
}

// Answers one request on the connection it came from, once; dropped unanswered, it sends an
// error. Threading: any thread.
class TcpResponder final : public mw::Responder {
 public:
  TcpResponder(RuntimeImpl& rt, std::weak_ptr<Connection> conn, const Header& request)
      : rt_(rt), conn_(std::move(conn)), header_(request) {}
  ~TcpResponder() override {
    if (!answered_.exchange(true))
      send(MessageType::kError, ReturnCode::kNotOk, {});
  }

  void reply(const mw::Writer& output) override {
    if (answered_.exchange(true))
      return;
    Serializer s;
    output(s);
    if (!s.ok()) {
      MLOG_ERROR(kTag, "answer not writable: ", s.error());
      send(MessageType::kError, ReturnCode::kNotOk, {});
      return;
    }
    send(MessageType::kResponse, ReturnCode::kOk, s.take());
  }
  void error(mw::ErrorCode code, const std::string& message) override {
    if (answered_.exchange(true))
      return;
    MLOG_DEBUG(kTag, "answering with an error: ", mw::toString(code), " ", message);
    send(MessageType::kError, toReturnCode(code), {});
  }

 private:
  void send(MessageType type, ReturnCode code, const std::vector<uint8_t>& payload) {
    auto conn = conn_.lock();
    if (!conn)
      return;
    Header h = header_;
    h.messageType = type;
    h.returnCode = code;
    rt_.sendTcp(conn, encodeMessage(h, payload));
  }

  RuntimeImpl& rt_;
  std::weak_ptr<Connection> conn_;
  const Header header_;
  std::atomic<bool> answered_{false};
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Requests and answers

void RuntimeImpl::serverRequest(const std::shared_ptr<OfferedService>& service,
                                const std::shared_ptr<Connection>& conn, Message& m) {
  if (conn->state() == Connection::State::kClosed)
    return;  // the offer was stopped; nothing more is served on it
  tap(conn->peer(), conn->local(), m);
  const MessageType type = m.header.messageType;
  if (type != MessageType::kRequest && type != MessageType::kRequestNoReturn) {
    MLOG_WARN(kTag, "unexpected ", toString(type), " from ", toString(conn->peer()), "; dropped");
    return;
  }
  const bool answer = type == MessageType::kRequest;
  auto fail = [&](ReturnCode code) {
    MLOG_WARN(kTag, "request 0x", kel::vxp3::minfw::hex(m.header.serviceId), ".0x",
              kel::vxp3::minfw::hex(m.header.methodId), " from ", toString(conn->peer()), ": ",
              toString(code));
    if (!answer)
      return;
    Header h = m.header;
    h.messageType = MessageType::kError;
    h.returnCode = code;
    sendTcp(conn, encodeMessage(h, {}));
  };
  if (m.header.serviceId != service->key.service)
    return fail(ReturnCode::kUnknownService);
  // Version 0 means "any": common clients send it unless told otherwise.
  if (m.header.interfaceVersion != 0 && m.header.interfaceVersion != service->iface->majorVersion)
    return fail(ReturnCode::kWrongInterfaceVersion);
  std::shared_ptr<mw::RequestHandler> handler;
  const std::vector<uint8_t>* fieldValue = nullptr;
  bool isGetter = false;
  std::vector<uint8_t> answerBytes;
  {
    std::lock_guard<std::mutex> sl(service->mutex);
    auto h = service->handlers.find(m.header.methodId);
    if (h != service->handlers.end()) {
      handler = h->second;
    } else {
      // A getter without handler answers with the field's last value.
      for (auto& [_, f] : service->iface->fields) {
        if (f.getter != m.header.methodId)
          continue;
        isGetter = true;
        auto v = service->fieldValues.find(f.notifier);
        if (v != service->fieldValues.end())
          fieldValue = &v->second;
      }
      if (fieldValue) {
        Header h = m.header;
        h.messageType = MessageType::kResponse;
        answerBytes = encodeMessage(h, *fieldValue);
      }
    }
  }
  if (!handler && isGetter) {
    if (answerBytes.empty())
      return fail(ReturnCode::kNotReady);  // no value yet
    if (answer)
      sendTcp(conn, answerBytes);
    return;
  }
  if (!handler)
    return fail(ReturnCode::kUnknownMethod);
  std::shared_ptr<mw::Responder> responder;
  if (answer)
    responder = std::make_shared<TcpResponder>(*this, conn, m.header);
  auto payload = std::make_shared<std::vector<uint8_t>>(std::move(m.payload));
  server_->post([handler, responder, payload] {
    Deserializer reader(*payload);
    handler->onRequest(reader, responder);
  });
}

void RuntimeImpl::linkMessage(const std::shared_ptr<ClientLink>& link, Message& m) {
  tap(link->conn->peer(), link->conn->local(), m);
  switch (m.header.messageType) {
    case MessageType::kResponse:
    case MessageType::kError: {
      std::unique_ptr<mw::ReplyReceiver> receiver;
      {
        std::lock_guard<std::mutex> ll(link->mutex);
        auto it = link->pending.find(m.header.sessionId);
        if (it != link->pending.end() && m.header.clientId == clientId_) {
          receiver = std::move(it->second);
          link->pending.erase(it);
        }
      }
      if (!receiver) {
        MLOG_WARN(kTag, "answer with session ", m.header.sessionId, " from ", link->iface->name,
                  " matches no pending call; dropped");
        return;
      }
      if (m.header.messageType == MessageType::kError || m.header.returnCode != ReturnCode::kOk) {
        receiver->onError(toErrorCode(m.header.returnCode), toString(m.header.returnCode));
        return;
      }
      Deserializer reader(m.payload);
      receiver->onReply(reader);
      return;
    }
    case MessageType::kNotification: {
      std::vector<std::shared_ptr<mw::SampleReceiver>> receivers;
      auto payload = std::make_shared<const std::vector<uint8_t>>(std::move(m.payload));
      {
        std::lock_guard<std::mutex> ll(link->mutex);
        for (auto& [_, f] : link->iface->fields)
          if (f.notifier == m.header.methodId)
            link->fieldValues[f.notifier] = payload;
        for (auto& s : link->subs)
          if (s.eventId == m.header.methodId)
            receivers.push_back(s.receiver);
      }
      if (receivers.empty()) {
        MLOG_DEBUG(kTag, "notification 0x", kel::vxp3::minfw::hex(m.header.methodId), " from ",
                   link->iface->name, " has no subscriber here; dropped");
        return;
      }
      callbacks_->post([receivers, payload] {
        for (auto& r : receivers) {
          Deserializer reader(*payload);
          r->onSample(reader);
        }
      });
      return;
    }
    default:
      MLOG_WARN(kTag, "unexpected ", toString(m.header.messageType), " from ", link->iface->name,
                "; dropped");
  }
}

// ---------------------------------------------------------------------------------------------
// Notifications

void RuntimeImpl::notify(const std::shared_ptr<OfferedService>& service, const MemberIds& ids,
                         std::vector<uint8_t> payload) {
  std::vector<std::shared_ptr<Connection>> targets;
  Header h;
  h.serviceId = service->key.service;
  h.methodId = ids.id;
  h.clientId = 0;
  h.interfaceVersion = service->iface->majorVersion;
  h.messageType = MessageType::kNotification;
  {
    std::lock_guard<std::mutex> lock(service->mutex);
    if (ids.isField)
      service->fieldValues[ids.id] = payload;
    h.sessionId = service->notifySession =
        service->notifySession == 0xFFFF ? 1 : static_cast<uint16_t>(service->notifySession + 1);
    auto g = service->subscribers.find(ids.eventgroup);
    if (g != service->subscribers.end())
      for (auto& [_, sub] : g->second)
        if (auto c = sub.conn.lock())
          targets.push_back(std::move(c));
  }
  if (targets.empty())
    return;
  auto bytes = encodeMessage(h, payload);
  for (auto& c : targets)
    sendTcp(c, bytes);
}

}  // namespace platform::someip
