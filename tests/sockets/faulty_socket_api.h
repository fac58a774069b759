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

  // The call with this number, counted from 1, fails with `failCode`; 0: none does.
  int failAt = 0;
  std::int32_t failCode = 10055;
  int calls = 0;
  std::set<Handle> open;

  Result Open(std::int32_t type) override {
    const Result result = Fails() ? Failure() : m_real.Open(type);
    if (result.Ok()) open.insert(result.value);
    return result;
  }
  // A close that fails has closed all the same, as the kernel's does.
  Result Close(Handle handle) override {
    const bool fails = Fails();
    open.erase(handle);
    const Result result = m_real.Close(handle);
    return fails ? Failure() : result;
  }
  Result Duplicate(Handle handle) override { return Fails() ? Failure() : m_real.Duplicate(handle); }
  Result Bind(Handle handle, const platform::InetAddress& address) override {
    return Fails() ? Failure() : m_real.Bind(handle, address);
  }
  Result Listen(Handle handle, std::int32_t backlog) override {
    return Fails() ? Failure() : m_real.Listen(handle, backlog);
  }
  Result Connect(Handle handle, const platform::InetAddress& address) override {
    return Fails() ? Failure() : m_real.Connect(handle, address);
  }
  Result Accept(Handle handle, platform::InetAddress* peer) override {
    const Result result = Fails() ? Failure() : m_real.Accept(handle, peer);
    if (result.Ok()) open.insert(result.value);
    return result;
  }
  Result ShutDown(Handle handle, std::int32_t how) override {
    return Fails() ? Failure() : m_real.ShutDown(handle, how);
  }
  Result Receive(Handle handle, std::span<std::uint8_t> buffer, std::int32_t flags) override {
    return Fails() ? Failure() : m_real.Receive(handle, buffer, flags);
  }
  Result ReceiveFrom(Handle handle, std::span<std::uint8_t> buffer, std::int32_t flags,
                     std::optional<platform::InetAddress>& sender) override {
    return Fails() ? Failure() : m_real.ReceiveFrom(handle, buffer, flags, sender);
  }
  Result Send(Handle handle, std::span<const std::uint8_t> data, std::int32_t flags) override {
    return Fails() ? Failure() : m_real.Send(handle, data, flags);
  }
  Result SendTo(Handle handle, std::span<const std::uint8_t> data, std::int32_t flags,
                const platform::InetAddress& address) override {
    return Fails() ? Failure() : m_real.SendTo(handle, data, flags, address);
  }
  Result GetOption(Handle handle, std::int32_t level, std::int32_t name) override {
    return Fails() ? Failure() : m_real.GetOption(handle, level, name);
  }
  Result SetOption(Handle handle, std::int32_t level, std::int32_t name, std::int32_t value) override {
    return Fails() ? Failure() : m_real.SetOption(handle, level, name, value);
  }
  Result IoControl(Handle handle, std::int32_t command, std::int32_t& argument) override {
    return Fails() ? Failure() : m_real.IoControl(handle, command, argument);
  }
  Result PeerName(Handle handle, platform::InetAddress& address) override {
    return Fails() ? Failure() : m_real.PeerName(handle, address);
  }
  Result SocketName(Handle handle, platform::InetAddress& address) override {
    return Fails() ? Failure() : m_real.SocketName(handle, address);
  }
  Result Poll(Handle handle) override { return Fails() ? Failure() : m_real.Poll(handle); }
  Result HostName(std::string& name) override { return Fails() ? Failure() : m_real.HostName(name); }

 private:
  bool Fails() { return ++calls == failAt; }
  Result Failure() const { return Result::Failure(failCode); }

  platform::SystemSocketApi m_real;
};

}  // namespace quenmark::test
