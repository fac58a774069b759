// The machine's socket calls, of which one can be made to fail, with a count of what is open.
#pragma once

#include "platform/socket_api.h"

#include <set>
#include <string>

namespace quenmark::test {

class FaultySocketApi final : public platform::SocketApi {
 public:
  using Result = platform::SocketResult;
  using Handle = platform::SocketHandle;
  using Address = platform::InetAddress;

  // The call with this number, counted from 1, fails with `failCode`; 0: none does.
  int failAt = 0;
  std::int32_t failCode = 10055;
  int calls = 0;
  std::set<Handle> open;

  Result Open(std::int32_t type) override { return Note(Try(&SocketApi::Open, type)); }
  Result Accept(Handle handle, Address* peer) override { return Note(Try(&SocketApi::Accept, handle, peer)); }
  // A close that fails has closed all the same, as the kernel's does.
  Result Close(Handle handle) override {
    open.erase(handle);
    const Result result = m_real.Close(handle);
    return ++calls == failAt ? Result::Failure(failCode) : result;
  }
  Result Duplicate(Handle handle) override { return Try(&SocketApi::Duplicate, handle); }
  Result Bind(Handle handle, const Address& address) override { return Try(&SocketApi::Bind, handle, address); }
  Result Listen(Handle handle, std::int32_t backlog) override { return Try(&SocketApi::Listen, handle, backlog); }
  Result Connect(Handle handle, const Address& address) override { return Try(&SocketApi::Connect, handle, address); }
  Result ShutDown(Handle handle, std::int32_t how) override { return Try(&SocketApi::ShutDown, handle, how); }
  Result Receive(Handle handle, std::span<std::uint8_t> buffer, std::int32_t flags) override {
    return Try(&SocketApi::Receive, handle, buffer, flags);
  }
  Result ReceiveFrom(Handle handle, std::span<std::uint8_t> buffer, std::int32_t flags,
                     std::optional<Address>& sender) override {
    return Try(&SocketApi::ReceiveFrom, handle, buffer, flags, sender);
  }
  Result Send(Handle handle, std::span<const std::uint8_t> data, std::int32_t flags) override {
    return Try(&SocketApi::Send, handle, data, flags);
  }
  Result SendTo(Handle handle, std::span<const std::uint8_t> data, std::int32_t flags, const Address& to) override {
    return Try(&SocketApi::SendTo, handle, data, flags, to);
  }
  Result GetOption(Handle handle, std::int32_t level, std::int32_t name) override {
    return Try(&SocketApi::GetOption, handle, level, name);
  }
  Result SetOption(Handle handle, std::int32_t level, std::int32_t name, std::int32_t value) override {
    return Try(&SocketApi::SetOption, handle, level, name, value);
  }
  Result IoControl(Handle handle, std::int32_t command, std::int32_t& argument) override {
    return Try(&SocketApi::IoControl, handle, command, argument);
  }
  Result PeerName(Handle handle, Address& address) override { return Try(&SocketApi::PeerName, handle, address); }
  Result SocketName(Handle handle, Address& address) override { return Try(&SocketApi::SocketName, handle, address); }
  Result Poll(Handle handle) override { return Try(&SocketApi::Poll, handle); }
  Result HostName(std::string& name) override { return Try(&SocketApi::HostName, name); }

 private:
  template <typename... Parameters, typename... Arguments>
  Result Try(Result (SocketApi::*call)(Parameters...), Arguments&&... arguments) {
    return ++calls == failAt ? Result::Failure(failCode) : (m_real.*call)(arguments...);
  }
  Result Note(const Result& result) {
    if (result.Ok()) open.insert(result.value);
    return result;
  }

  platform::SystemSocketApi m_real;
};

}  // namespace quenmark::test
