// SPDX-License-Identifier: MIT
#include "programs/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

namespace programs {

namespace {

// The environment names device and inode of the journal's end; a redirected standard error is another.
bool standard_error_is_the_journal()
{
    const char* const stream = std::getenv("JOURNAL_STREAM");
    struct stat status;
    return stream != nullptr && fstat(STDERR_FILENO, &status) == 0 &&
           fmt::format("{}:{}", status.st_dev, status.st_ino) == stream;
}

// What a level is before the text.
class LevelMark : public spdlog::custom_flag_formatter {
public:
    explicit LevelMark(bool journal) : journal_(journal) {}

    void format(const spdlog::details::log_msg& message, const std::tm&, spdlog::memory_buf_t& to) override
    {
        const spdlog::level::level_enum level = message.level;
        const std::string_view mark = journal_ ? (level >= spdlog::level::err    ? "<3>"
                                                  : level == spdlog::level::warn ? "<4>"
                                                                                 : "<6>")
                                               : (level == spdlog::level::warn ? "warning: " : "");
        to.append(mark.data(), mark.data() + mark.size());
    }
    std::unique_ptr<custom_flag_formatter> clone() const override
    {
        return std::make_unique<LevelMark>(journal_);
    }

private:
    const bool journal_;
};

spdlog::level::level_enum level_of(LogLevel level)
{
    switch (level) {
    case LogLevel::error:
        return spdlog::level::err;
    case LogLevel::warning:
        return spdlog::level::warn;
    case LogLevel::notice:
    case LogLevel::info:
        break;
    }
    return spdlog::level::info;
}

std::unique_ptr<spdlog::logger> standard_error_log(const std::string& program)
{
    const bool journal = standard_error_is_the_journal();
    auto formatter = std::make_unique<spdlog::pattern_formatter>();
    formatter->add_flag<LevelMark>('*', journal).set_pattern(journal ? "%*%v" : "%n: %*%v");
    auto logger =
        std::make_unique<spdlog::logger>(program, std::make_shared<spdlog::sinks::stderr_sink_mt>());
    logger->set_formatter(std::move(formatter));
    logger->set_error_handler([](const std::string&) {});
    return logger;
}

// Never taken down: threads that outlive main may still have something to tell.
spdlog::logger*& standard_error_logger()
{
    static spdlog::logger* logger = standard_error_log("qrn").release();
    return logger;
}

}  // namespace

void name_log(const std::string& program)
{
    delete std::exchange(standard_error_logger(), standard_error_log(program).release());
}

void log(LogLevel level, const std::string& text)
{
    standard_error_logger()->log(level_of(level), spdlog::string_view_t(text));
}

class LogFile::Logger : public spdlog::logger {
public:
    using spdlog::logger::logger;
};

LogFile::LogFile(const std::string& path)
{
    // The library would make missing folders, and tries for a while.
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOCTTY | O_CLOEXEC, 0666);
    if (file < 0)
        throw std::system_error(errno, std::generic_category(), path);
    close(file);
    try {
        logger_ =
            std::make_unique<Logger>("", std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, false));
    } catch (const spdlog::spdlog_ex& error) {
        throw std::system_error(EIO, std::generic_category(), error.what());
    }
    logger_->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
    logger_->flush_on(spdlog::level::trace);
    logger_->set_error_handler([](const std::string&) {});
}

LogFile::LogFile(LogFile&&) noexcept = default;
LogFile::~LogFile() = default;

void LogFile::write(const std::string& line)
{
    logger_->log(spdlog::level::info, spdlog::string_view_t(line));
}

}  // namespace programs
