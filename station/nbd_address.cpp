// SPDX-License-Identifier: MIT
#include "station/nbd_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>
#include <system_error>

namespace station {

namespace {

constexpr int listen_backlog = 64;

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

UniqueFd new_socket(int family)
{
    UniqueFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        fail("socket");
    return fd;
}

sockaddr_un unix_address(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size());
    return address;
}

bool is_ipv6(const std::string& host)
{
    return host.find(':') != std::string::npos;
}

// The socket at this path has nobody behind it.
bool stale(const sockaddr_un& address)
{
    struct stat status;
    if (stat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode))
        return false;
    const UniqueFd probe = new_socket(AF_UNIX);
    return connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
           errno == ECONNREFUSED;
}

// The characters that a URI's query may carry as they are.
std::string percent_encoded(const std::string& text)
{
    constexpr char plain[] = "-._~/";
    std::string encoded;
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        if ((byte < 0x80 && std::isalnum(byte)) || (each && std::strchr(plain, each))) {
            encoded += each;
        } else {
            constexpr char digits[] = "0123456789ABCDEF";
            encoded += {'%', digits[byte >> 4], digits[byte & 15]};
        }
    }
    return encoded;
}

}  // namespace

NbdAddress NbdAddress::parse(const std::string& text)
{
    NbdAddress parsed;
    if (text.starts_with("unix:")) {
        parsed.unix_ = true;
        parsed.host_ = text.substr(5);
        if (parsed.host_.empty())
            throw std::invalid_argument("unix: needs a path");
        if (parsed.host_.size() >= sizeof(sockaddr_un::sun_path))
            throw std::invalid_argument("the path of a Unix socket has at most " +
                                        std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes");
        return parsed;
    }
    const auto colon = text.rfind(':');
    if (!text.starts_with("tcp:") || colon < 4)
        throw std::invalid_argument("expected unix:PATH or tcp:ADDRESS:PORT, not '" + text + "'");
    parsed.host_ = text.substr(4, colon - 4);
    const char* const port = text.data() + colon + 1;
    const char* const end = text.data() + text.size();
    if (const auto [stop, error] = std::from_chars(port, end, parsed.port_);
        error != std::errc{} || stop != end)
        throw std::invalid_argument("'" + std::string(port) + "' is no port number");
    if (parsed.host_.size() >= 2 && parsed.host_.front() == '[' && parsed.host_.back() == ']')
        parsed.host_ = parsed.host_.substr(1, parsed.host_.size() - 2);
    in6_addr scratch;
    if (inet_pton(is_ipv6(parsed.host_) ? AF_INET6 : AF_INET, parsed.host_.c_str(), &scratch) != 1)
        throw std::invalid_argument("'" + parsed.host_ + "' is no IP address");
    return parsed;
}

UniqueFd NbdAddress::listen()
{
    UniqueFd fd = unix_ ? listen_unix() : listen_tcp();
    if (::listen(fd.get(), listen_backlog) != 0)
        fail("cannot listen on " + text());
    return fd;
}

UniqueFd NbdAddress::listen_unix()
{
    const sockaddr_un address = unix_address(host_);
    const auto* const plain = reinterpret_cast<const sockaddr*>(&address);
    UniqueFd fd = new_socket(AF_UNIX);
    int result = bind(fd.get(), plain, sizeof address);
    if (result != 0 && errno == EADDRINUSE) {
        if (!stale(address))
            throw std::runtime_error("cannot listen on " + text() + ": it exists and is in use");
        unlink(host_.c_str());
        result = bind(fd.get(), plain, sizeof address);
    }
    if (result != 0)
        fail("cannot listen on " + text());
    made_ = true;
    return fd;
}

UniqueFd NbdAddress::listen_tcp()
{
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    const bool six = is_ipv6(host_);
    v4.sin_family = AF_INET;
    v4.sin_port = v6.sin6_port = htons(port_);
    v6.sin6_family = AF_INET6;
    inet_pton(six ? AF_INET6 : AF_INET, host_.c_str(),
              six ? static_cast<void*>(&v6.sin6_addr) : static_cast<void*>(&v4.sin_addr));
    auto* const address = six ? reinterpret_cast<sockaddr*>(&v6) : reinterpret_cast<sockaddr*>(&v4);
    socklen_t bytes = six ? sizeof v6 : sizeof v4;

    UniqueFd fd = new_socket(six ? AF_INET6 : AF_INET);
    const int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd.get(), address, bytes) != 0 || getsockname(fd.get(), address, &bytes) != 0)
        fail("cannot listen on " + text());
    port_ = ntohs(six ? v6.sin6_port : v4.sin_port);
    return fd;
}

void NbdAddress::remove()
{
    if (made_)
        unlink(host_.c_str());
    made_ = false;
}

std::string NbdAddress::text() const
{
    if (unix_)
        return "unix:" + host_;
    return "tcp:" + (is_ipv6(host_) ? "[" + host_ + "]" : host_) + ":" + std::to_string(port_);
}

std::string NbdAddress::uri(const std::string& export_name) const
{
    if (unix_)
        return "nbd+unix:///" + export_name + "?socket=" + percent_encoded(host_);
    return "nbd://" + text().substr(4) + "/" + export_name;
}

}  // namespace station
