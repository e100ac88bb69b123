// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>

#include "server/web_page.h"

using nlohmann::json;
using server::web_answer;

namespace {

json status()
{
    return {{"server", {{"boots", 3}, {"boots_refused", 1}, {"dropped", {{"strangers", 7}}}}},
            {"workstations",
             {{{"name", "pc\"1"},
               {"state", "running"},
               {"disks",
                {{{"lun", 0},
                  {"image", "win@2"},
                  {"read_bytes", 512},
                  {"written_bytes", 0},
                  {"status_queries", 0},
                  {"store_errors", 4}}}}}}},
            {"images", json::array()}};
}

std::string body_of(const std::string& answer)
{
    return answer.substr(answer.find("\r\n\r\n") + 4);
}

TEST(Web_page, Answers_three_paths_and_changes_nothing)
{
    EXPECT_TRUE(web_answer("GET / HTTP/1.1\r\nHost: x\r\n\r\n", status).starts_with("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(json::parse(body_of(web_answer("GET /api?x=1 HTTP/1.0\r\n\r\n", status))), status());
    const std::string metrics = body_of(web_answer("GET /metrics HTTP/1.1\r\n\r\n", status));
    for (const char* line : {"qrn_boots_total 3\n", "qrn_dropped_total{reason=\"strangers\"} 7\n",
                             "qrn_running{workstation=\"pc\\\"1\"} 1\n",
                             "qrn_store_errors_total{workstation=\"pc\\\"1\",lun=\"0\",image=\"win@2\"} 4\n"})
        EXPECT_NE(metrics.find(line), metrics.npos) << metrics;
    EXPECT_EQ(body_of(web_answer("HEAD / HTTP/1.1\r\n\r\n", status)), "");
    EXPECT_TRUE(web_answer("GET /../etc/passwd HTTP/1.1\r\n\r\n", status).starts_with("HTTP/1.1 404 "));
    EXPECT_TRUE(web_answer("POST /api HTTP/1.1\r\n\r\n", status).starts_with("HTTP/1.1 405 "));
    for (const char* nonsense : {"", "\r\n\r\n", "GET", "GET /", "GET / FTP/1.1\r\n\r\n", " / HTTP/1.1x"})
        EXPECT_FALSE(web_answer(nonsense, status).starts_with("HTTP/1.1 200 ")) << nonsense;
}

}  // namespace
