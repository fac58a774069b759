#include "websocket/websocket.h"

#include "websocket/websocket_state.h"

#include <utility>

namespace quenmark::websocket {

// Every call holds on to the state: a handler may destroy the component meanwhile.

Websocket::Websocket(platform::MessageLoop& loop, WebsocketServices services, WebsocketEvents events)
    : m_state(std::make_shared<WebsocketState>(loop, std::move(services), std::move(events))) {
  m_state->Start();
}

Websocket::~Websocket() {
  m_state->Drop();
}

void Websocket::Connect(std::string_view url, std::string_view port, std::string_view protocols,
                        std::string_view extensions, std::span<const std::string> headers) {
  const auto state = m_state;
  state->Connect(url, port, protocols, extensions, headers);
}

void Websocket::ReConnect(std::string_view url) {
  const auto state = m_state;
  state->ReConnect(url);
}

void Websocket::Send(const SendData& data, bool noUtf8Conversion) {
  const auto state = m_state;
  state->Send(data, noUtf8Conversion);
}

void Websocket::SendAdvanced(const SendData& data, std::int32_t opcode, const FrameOptions& options) {
  const auto state = m_state;
  state->SendAdvanced(data, opcode, options);
}

void Websocket::Ping(std::string_view data) {
  const auto state = m_state;
  state->Ping(data);
}

void Websocket::Disconnect() {
  const auto state = m_state;
  state->Disconnect();
}

void Websocket::ShutDown() {
  const auto state = m_state;
  state->ShutDown();
}

std::int32_t Websocket::readyState() const {
  return m_state->readyState;
}

bool Websocket::isBusy() const {
  return m_state->busy > 0;
}

const std::string& Websocket::Protocols() const {
  return m_state->protocols;
}

const std::string& Websocket::Extensions() const {
  return m_state->extensions;
}

bool Websocket::UseCompression() const {
  return m_state->useCompression;
}

void Websocket::SetUseCompression(bool useCompression) {
  m_state->SetUseCompression(useCompression);
}

double Websocket::ChunkSize() const {
  return m_state->chunkSize;
}

void Websocket::SetChunkSize(double chunkSize) {
  const auto state = m_state;
  state->SetChunkSize(chunkSize);
}

const StatusLine& Websocket::Status() const {
  return m_state->status;
}

std::string Websocket::GetStatusCodeText(std::int32_t code) const {
  return m_state->CodeText(code);
}

}  // namespace quenmark::websocket
