// SPDX-License-Identifier: MIT
#include "server/web_page.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>

#include <fmt/format.h>

#include "formats/socket_address.h"
#include "server/addresses.h"

namespace server {

using Json = nlohmann::json;

namespace {

constexpr char page[] = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><meta name="viewport" content="width=device-width, initial-scale=1">
<title>qrn-server</title><style>
:root { color-scheme: light dark }
body { font: 15px/1.4 system-ui, sans-serif; margin: 1rem auto; max-width: 75rem; padding: 0 1rem }
h1 { font-size: 1.3rem } h2 { font-size: 1.1rem; margin-top: 1.5rem }
table { border-collapse: collapse; width: 100% }
th, td { text-align: left; padding: .3rem .6rem; border-bottom: 1px solid #8884; vertical-align: top }
td.n, th.n { text-align: right; font-variant-numeric: tabular-nums }
.running { color: #2a8a3e } .trouble, .lost { color: #c62828; font-weight: 600 } .silent { color: #b26a00 }
small { color: #777 }
@media (max-width: 600px) {
  thead { display: none } tr { display: block; border-bottom: 1px solid #8888; padding: .4rem 0 }
  td, td.n { display: flex; justify-content: space-between; gap: 1rem; text-align: right; border: 0; padding: .1rem 0;
             overflow-wrap: anywhere }
  td::before { content: attr(data-label); color: #777; text-align: left }
}
</style></head><body>
<h1>Block server <span id="address"></span> <small id="state">connecting</small></h1>
<h2>Workstations</h2><table id="workstations"><thead></thead><tbody></tbody></table>
<h2>Images</h2><table id="images"><thead></thead><tbody></tbody></table>
<script>
'use strict';
const WORKSTATION = ['Name', 'State', 'Address', 'Disks', 'Read MB/s', 'Written MB/s', 'Asked again', 'Overlays', 'Cache',
                     'Image copied', 'Errors', 'Last seen'];
const IMAGE = ['Image', 'Path', 'Used by', 'Size', 'Changed'];
const NUMBERS = new Set(['Read MB/s', 'Written MB/s', 'Asked again', 'Overlays', 'Cache', 'Image copied', 'Errors',
                         'Last seen', 'Size', 'Changed']);
let before = null, beforeAt = 0;
function sum(one, field) { return one.disks.reduce((total, disk) => total + (disk[field] || 0), 0); }
function size(bytes) {
  if (!bytes) return '-';
  const units = ['B', 'KB', 'MB', 'GB', 'TB'];
  let unit = 0;
  while (bytes >= 1000 && unit < 4) { bytes /= 1000; ++unit; }
  return bytes.toFixed(bytes < 10 && unit ? 1 : 0) + ' ' + units[unit];
}
function ago(seconds) {
  if (seconds === null) return '-';
  return seconds < 120 ? Math.round(seconds) + ' s' : seconds < 7200 ? Math.round(seconds / 60) + ' min'
       : seconds < 172800 ? Math.round(seconds / 3600) + ' h' : Math.round(seconds / 86400) + ' days';
}
function fill(id, names, rows) {
  const table = document.getElementById(id), head = table.tHead, body = table.tBodies[0];
  if (!head.rows.length) {
    const row = head.insertRow();
    for (const name of names) {
      const cell = document.createElement('th');
      cell.textContent = name;
      if (NUMBERS.has(name)) cell.className = 'n';
      row.append(cell);
    }
  }
  while (body.rows.length > rows.length) body.deleteRow(-1);
  rows.forEach((cells, index) => {
    const row = body.rows[index] || body.insertRow();
    names.forEach((name, column) => {
      const cell = row.cells[column] || row.insertCell();
      cell.textContent = cells[column];
      cell.dataset.label = name;
      cell.className = NUMBERS.has(name) ? 'n' : name === 'State' ? cells[column].split(' ')[0] : '';
    });
  });
}
function rate(one, field, seconds) {
  const old = before && before.get(one.name);
  const bytes = old === undefined || old === null ? 0 : sum(one, field) - sum(old, field);
  return seconds > 0 && bytes > 0 ? (bytes / 1e6 / seconds).toFixed(1) : '-';
}
async function update() {
  const state = document.getElementById('state');
  try {
    const answer = await fetch('/api', { cache: 'no-store' });
    const all = await answer.json(), now = performance.now(), seconds = (now - beforeAt) / 1000;
    document.getElementById('address').textContent = all.server.address;
    const dropped = Object.values(all.server.dropped).reduce((a, b) => a + b, 0);
    state.className = '';
    state.textContent = all.server.boots + ' boots, ' + all.server.boots_refused + ' refused, ' + dropped +
        ' packets dropped' + (all.server.draining ? ', draining' : '');
    fill('workstations', WORKSTATION, all.workstations.map(one => [
      one.name, one.state + (one.trouble ? ': ' + one.trouble : ''), one.address || one.hardware,
      one.disks.map(disk => disk.image + ' ' + disk.mode).join(', ') || '-', rate(one, 'read_bytes', seconds),
      rate(one, 'written_bytes', seconds), sum(one, 'status_queries'), size(sum(one, 'room_bytes')),
      sum(one, 'cache_mb') ? sum(one, 'cache_mb') + ' MB' : '-', size(sum(one, 'sync_bytes')),
      sum(one, 'store_errors'), ago(one.last_seen_s)]));
    fill('images', IMAGE, all.images.flatMap(image => image.versions.map(version => [
      image.name + '@' + version.version + (version.version === image.current ? ' (current)' : ''), version.path,
      version.users.length > 4 ? version.users.length + ' workstations' : version.users.join(', ') || 'nobody',
      size(version.size_bytes), version.changed_unix_s ? ago(Date.now() / 1000 - version.changed_unix_s) : '-'])));
    before = new Map(all.workstations.map(one => [one.name, one]));
    beforeAt = now;
  } catch (error) {
    state.className = 'lost';
    state.textContent = 'the server does not answer';
  }
}
update();
setInterval(update, 2000);
</script></body></html>
)";

std::string label_text(const std::string& text)
{
    std::string escaped;
    for (const char letter : text)
        escaped += letter == '\\'   ? "\\\\"
                   : letter == '"'  ? "\\\""
                   : letter == '\n' ? "\\n"
                                    : std::string(1, letter);
    return escaped;
}

void add_metric(std::string& to, const char* name, const char* type, const char* help)
{
    to += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
}

std::string metrics(const Json& status)
{
    std::string text;
    const Json& server = status["server"];
    add_metric(text, "qrn_boots_total", "counter", "Workstations that were given their disks.");
    text += fmt::format("qrn_boots_total {}\n", server["boots"].get<std::uint64_t>());
    add_metric(text, "qrn_boots_refused_total", "counter", "Boot requests that were refused.");
    text += fmt::format("qrn_boots_refused_total {}\n", server["boots_refused"].get<std::uint64_t>());
    add_metric(text, "qrn_dropped_total", "counter", "Packets that no disk got.");
    for (const auto& [reason, count] : server["dropped"].items())
        text += fmt::format("qrn_dropped_total{{reason=\"{}\"}} {}\n", reason, count.get<std::uint64_t>());
    add_metric(text, "qrn_running", "gauge", "Whether a workstation is running.");
    for (const Json& one : status["workstations"])
        text += fmt::format("qrn_running{{workstation=\"{}\"}} {}\n", label_text(one["name"]),
                            one["state"] == "running" ? 1 : 0);
    static constexpr struct {
        const char *name, *field, *type, *help;
    } of_disks[] = {
        {"qrn_read_bytes_total", "read_bytes", "counter", "Bytes that a workstation read."},
        {"qrn_written_bytes_total", "written_bytes", "counter", "Bytes that a workstation wrote."},
        {"qrn_status_queries_total", "status_queries", "counter",
         "Questions after packets that had no answer."},
        {"qrn_store_errors_total", "store_errors", "counter", "Requests that the storage failed."},
        {"qrn_overlay_bytes", "room_bytes", "gauge", "Room that an overlay takes."},
    };
    for (const auto& metric : of_disks) {
        add_metric(text, metric.name, metric.type, metric.help);
        for (const Json& one : status["workstations"])
            for (const Json& disk : one["disks"])
                if (disk.contains(metric.field))
                    text += fmt::format("{}{{workstation=\"{}\",lun=\"{}\",image=\"{}\"}} {}\n", metric.name,
                                        label_text(one["name"]), disk["lun"].get<unsigned>(),
                                        label_text(disk["image"]), disk[metric.field].get<std::uint64_t>());
    }
    return text;
}

std::string answer_with(const char* outcome, const char* type, const std::string& body, bool with_body)
{
    return fmt::format(
        "HTTP/1.1 {}\r\nContent-Type: {}; charset=utf-8\r\nContent-Length: {}\r\nConnection: "
        "close\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\n"
        "Content-Security-Policy: default-src 'self' 'unsafe-inline'; frame-ancestors 'none'\r\n\r\n{}",
        outcome, type, body.size(), with_body ? body : "");
}

// Port 0: one that is free, and told by then.
int listen_at(formats::ServerRecord& address)
{
    const int file = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to_bind = formats::socket_address(address);
    socklen_t length = sizeof to_bind;
    const int on = 1;
    if (file >= 0)
        setsockopt(file, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (file < 0 || bind(file, reinterpret_cast<const sockaddr*>(&to_bind), sizeof to_bind) != 0 ||
        listen(file, 16) != 0 || getsockname(file, reinterpret_cast<sockaddr*>(&to_bind), &length) != 0) {
        const int error = errno;
        close(file);
        throw std::system_error(error, std::generic_category(), "http " + to_text(address));
    }
    address = formats::record_of(to_bind);
    return file;
}

}  // namespace

std::string web_answer(std::string_view request, const std::function<Json()>& status)
{
    const std::string_view line = request.substr(0, request.find('\r'));
    const std::size_t after_method = line.find(' ');
    const std::size_t after_path = after_method == line.npos ? line.npos : line.find(' ', after_method + 1);
    if (after_path == line.npos || !line.substr(after_path + 1).starts_with("HTTP/1."))
        return answer_with("400 Bad Request", "text/plain", "no HTTP request\n", true);
    const std::string_view method = line.substr(0, after_method);
    const bool get = method == "GET";
    if (!get && method != "HEAD")
        return answer_with("405 Method Not Allowed", "text/plain", "only GET and HEAD\n", true);
    std::string_view path = line.substr(after_method + 1, after_path - after_method - 1);
    path = path.substr(0, path.find('?'));
    if (path == "/")
        return answer_with("200 OK", "text/html", page, get);
    if (path == "/api")
        return answer_with("200 OK", "application/json",
                           status().dump(-1, ' ', false, Json::error_handler_t::replace) + "\n", get);
    if (path == "/metrics")
        return answer_with("200 OK", "text/plain; version=0.0.4", metrics(status()), get);
    return answer_with("404 Not Found", "text/plain", "there are /, /api and /metrics\n", get);
}

WebPage::WebPage(const formats::ServerRecord& address, std::function<Json()> status)
    : address_(address), status_(std::move(status)),
      server_(listen_at(address_), [this](int client) { serve(client); })
{
}

// One request for each connection, and a client that dawdles is let go.
void WebPage::serve(int client) const
{
    const timeval patience{.tv_sec = 5, .tv_usec = 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    std::string request;
    char buffer[2048];
    while (request.find("\r\n\r\n") == request.npos) {
        const ssize_t count = recv(client, buffer, sizeof buffer, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0 || request.size() > request_bytes_max)
            return;
        request.append(buffer, static_cast<std::size_t>(count));
    }
    send_all(client, web_answer(request, status_));
}

}  // namespace server
