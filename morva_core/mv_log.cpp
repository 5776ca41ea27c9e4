// The levelled file logger: six types, thirty categories each, one write per line,
// a new file every 70000 lines.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "mv_core.h"

namespace {

struct LogTypeInfo {
    const char* prefix;
    const char* dirFormat;
    int printTimeStamp;
};

constexpr LogTypeInfo kLogTypes[MV_LOG_TYPE_COUNT] = {
    {"STK", "%s/stk", 1}, {"PER", "%s/per", 0}, {"APP", "%s/app", 1},
    {"CMN", "%s/cmn", 1}, {"CMN", "%s/cmn", 1}, {"CMN", "%s/cmn", 1},
};

constexpr const char* kPrefixSuffix[4] = {"STK", "PER", "APP", "BUF"};

// Lines may be written before the core record exists (a test that only logs, or a
// call before __init_morva_core); the log state then lives here.
MV_LogConfig* logConfigs() {
    if (__mvCore) return __mvCore->LogConfig;
    static MV_LogConfig early[MV_LOG_TYPE_COUNT];
    return early;
}

char* rootPath() {
    static char early[249];
    return __mvCore ? __mvCore->LogRootPath : early;
}

const char* levelTag(uint32_t level) {
    switch (level) {
        case MV_LOG_CRITICAL: return "[C]";
        case MV_LOG_WARNING: return "[W]";
        case MV_LOG_INFO: return "[I]";
        case MV_LOG_DEBUG: return "[D]";
        default: return "[E]";
    }
}

void copyText(char* dst, size_t cap, const char* src) {
    if (!src) src = "";
    snprintf(dst, cap, "%s", src);
}

}  // namespace

void __mv_configure_log(uint32_t mLogType, uint32_t mLogLevel, const char* logPrefix, const char* logPath,
                        int iPrintTimeStamp) {
    if (mLogType >= MV_LOG_TYPE_COUNT) return;
    MV_LogConfig& lc = logConfigs()[mLogType];
    copyText(lc.Prefix, sizeof lc.Prefix, logPrefix);
    copyText(lc.Path, sizeof lc.Path, logPath);
    lc.iLoggingThreshold = int(mLogLevel);
    lc.PrintTimeStamp = iPrintTimeStamp;
    lc.LineCount = 0;
    if (!lc.initalized) {
        lc.iHandle = -1;
        lc.Enabled = 1;
        for (int i = 0; i < MV_LOG_CAT_COUNT; ++i) {
            lc.LogCat[i].iCat = uint8_t(i);
            lc.LogCat[i].iEnabled = 1;
        }
        lc.initalized = 1;
    }
    struct stat st;
    if (stat(lc.Path, &st) != 0) __mv_mkpath(lc.Path, 0700);
}

void __mv_configure_log2(uint32_t mLogType, uint32_t mLogLevel) {
    (void)mLogLevel;  // the lazy form always starts at the most verbose level
    if (mLogType >= MV_LOG_TYPE_COUNT) return;
    char path[500];
    snprintf(path, sizeof path, kLogTypes[mLogType].dirFormat, rootPath());
    __mv_configure_log(mLogType, MV_LOG_DEBUG, kLogTypes[mLogType].prefix, path, kLogTypes[mLogType].printTimeStamp);
}

void __mv_init_logger(const char* root) {
    __mv_set_logger_rootpath(root);
    for (uint32_t t = 0; t < MV_LOG_TYPE_COUNT; ++t) {
        __mv_configure_log2(t, MV_LOG_DEBUG);
        MV_LogConfig& lc = logConfigs()[t];
        lc.Enabled = 1;
        __mv_log_cat_enable_all(t);
    }
}

void __mv_set_log_level(uint32_t mLogType, uint32_t mLogLevel) {
    if (mLogType >= MV_LOG_TYPE_COUNT) return;
    if (mLogLevel < MV_LOG_LOWER_LIMIT || mLogLevel > MV_LOG_UPPER_LIMIT) return;
    logConfigs()[mLogType].iLoggingThreshold = int(mLogLevel);
}

int __mv_log_get_level(uint32_t mLogType) {
    return mLogType < MV_LOG_TYPE_COUNT ? logConfigs()[mLogType].iLoggingThreshold.load() : 0;
}

void __mv_set_log_enable_disable(uint32_t mLogType, int isEnabled) {
    if (mLogType < MV_LOG_TYPE_COUNT) logConfigs()[mLogType].Enabled = isEnabled;
}

void __mv_log_cat_enable_disable(uint32_t mLogType, uint32_t icat, int isEnabled) {
    if (mLogType < MV_LOG_TYPE_COUNT && icat < MV_LOG_CAT_COUNT) logConfigs()[mLogType].LogCat[icat].iEnabled = isEnabled;
}

void __mv_log_cat_setName(uint32_t mLogType, uint32_t icat, const char* catName) {
    if (mLogType < MV_LOG_TYPE_COUNT && icat < MV_LOG_CAT_COUNT) {
        MV_LogCat& c = logConfigs()[mLogType].LogCat[icat];
        c.iCat = uint8_t(icat);
        copyText(c.sCatName, sizeof c.sCatName, catName);
    }
}

void __mv_log_cat_enable_all(uint32_t mLogType) {
    if (mLogType >= MV_LOG_TYPE_COUNT) return;
    for (auto& c : logConfigs()[mLogType].LogCat) c.iEnabled = 1;
}

void __mv_log_cat_disable_all(uint32_t mLogType) {
    if (mLogType >= MV_LOG_TYPE_COUNT) return;
    for (auto& c : logConfigs()[mLogType].LogCat) c.iEnabled = 0;
}

void __mv_set_log_prefix(uint32_t mLogType, const char* logPrefix) {
    if (mLogType >= 4 || !logPrefix) return;
    MV_LogConfig& lc = logConfigs()[mLogType];
    std::lock_guard g(lc.Lock);
    snprintf(lc.Prefix, sizeof lc.Prefix, "%s_%s", logPrefix, kPrefixSuffix[mLogType]);
}

void __mv_setall_log_prefix(const char* logPrefix) {
    if (!logPrefix) return;
    char cut[4] = {};
    strncpy(cut, logPrefix, 3);
    for (uint32_t t = 0; t < 4; ++t) __mv_set_log_prefix(t, cut);
}

const char* __mv_get_logger_rootpath() { return rootPath(); }

void __mv_set_logger_rootpath(const char* root) { copyText(rootPath(), 249, root); }

void __mv_log(uint32_t mLogType, uint32_t mLogCat, uint32_t mLogLevel, const char* mLogMessage, ...) {
    if (mLogType >= MV_LOG_TYPE_COUNT) {
        printf("invalid log cat, should be between 0 and 6<%s|%s|%d>\n", __FILE_NAME__, __func__, __LINE__);
        return;
    }
    MV_LogConfig& lc = logConfigs()[mLogType];
    if (!lc.initalized) {
        int expected = 0;
        if (lc.initnotified.compare_exchange_strong(expected, 1)) {
            printf("Logger Not initalized LogType=%u LogLevel=%u <core.c|%d>\n", mLogType, mLogLevel, __LINE__);
            __mv_configure_log2(mLogType, mLogLevel);
        }
        return;
    }
    if (!lc.Enabled) return;
    if (mLogCat >= MV_LOG_CAT_COUNT) {
        printf("invalid log cat, should be between 0 and 30 <%s|%s|%d>\n", __FILE_NAME__, __func__, __LINE__);
        return;
    }
    if (!lc.LogCat[mLogCat].iEnabled && mLogLevel != MV_LOG_CRITICAL) {
        printf("mLogType=%d mLogCat=%d <%s|%s|%d>\n", int(mLogType), int(mLogCat), __FILE_NAME__, __func__, __LINE__);
        return;
    }
    if (mLogLevel < MV_LOG_LOWER_LIMIT || mLogLevel > MV_LOG_UPPER_LIMIT) return;
    if (int(mLogLevel) > lc.iLoggingThreshold.load(std::memory_order_relaxed)) return;
    if (!mLogMessage || strnlen(mLogMessage, LOG_MESSAGE_MAX_SIZE + 1) > LOG_MESSAGE_MAX_SIZE) return;

    char message[LOG_MESSAGE_MAX_SIZE + 1];
    va_list ap;
    va_start(ap, mLogMessage);
    vsnprintf(message, sizeof message, mLogMessage, ap);
    va_end(ap);

    char line[LOGGER_BUFFER_SIZE + 200];
    std::lock_guard g(lc.Lock);
    int n;
    if (lc.PrintTimeStamp == 1) {
        char stamp[40];
        __mv_makeTimeStamp(stamp);
        n = snprintf(line, sizeof line, "%s|%s|%lu|%s|%s\n", levelTag(mLogLevel), stamp,
                     (unsigned long)pthread_self(), lc.LogCat[mLogCat].sCatName, message);
    } else {
        n = snprintf(line, sizeof line, "%s\n", message);
    }
    if (n < 0) return;
    if (size_t(n) >= sizeof line) n = int(sizeof line - 1);

    bool forceNew = false;
    if (lc.LineCount >= MV_LOG_LINES_PER_FILE) {
        if (lc.iHandle >= 0) close(lc.iHandle);
        lc.iHandle = -1;
        forceNew = true;
    }
    if (lc.iHandle < 0 || forceNew) {
        lc.LineCount = 0;
        char fileName[800];
        __mv_makeIntFileName(fileName, lc.Path, lc.Prefix, lc.iFileIndex);
        mode_t old = umask(022);
        __mv_mkpath(lc.Path, 0700);
        lc.iHandle = open(fileName, O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0644);
        umask(old);
        if (lc.iHandle < 0) return;  // the line is lost; the next one tries a fresh name
    }
    ++lc.LineCount;
    ssize_t w = write(lc.iHandle, line, size_t(n));
    (void)w;
}

void __mv_log_buffer(const char* prefix, const uint8_t* buff, int len) {
    // 2000 characters of text hold 666 bytes as "%02X ".
    char text[2000];
    size_t pos = 0;
    text[0] = 0;
    for (int i = 0; buff && i < len && pos + 3 < sizeof text; ++i) pos += size_t(snprintf(text + pos, sizeof text - pos, "%02X ", buff[i]));
    __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_DEBUG, "%s [%s] len=%d <%s|%s|%d>", prefix ? prefix : "", text, len,
             __FILE_NAME__, __func__, __LINE__);
}

void __mv_log_delete_old_log_files(const char* dir_path, int keepCount, int maxFiles) {
    DIR* d = opendir(dir_path);
    if (!d) return;
    struct Entry {
        std::string path;
        struct timespec mtime;
    };
    std::vector<Entry> files;
    while (struct dirent* e = readdir(d)) {
        if (int(files.size()) >= maxFiles) break;
        if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, "..")) continue;
        char full[512];
        int n = snprintf(full, sizeof full, "%s/%s", dir_path, e->d_name);
        if (n < 0 || size_t(n) >= sizeof full) continue;
        struct stat st;
        if (stat(full, &st) != 0 || !S_ISREG(st.st_mode)) continue;
        files.push_back({full, st.st_mtim});
    }
    closedir(d);
    std::stable_sort(files.begin(), files.end(), [](const Entry& a, const Entry& b) {
        if (a.mtime.tv_sec != b.mtime.tv_sec) return a.mtime.tv_sec > b.mtime.tv_sec;
        return a.mtime.tv_nsec > b.mtime.tv_nsec;
    });
    for (size_t i = size_t(std::max(keepCount, 0)); i < files.size(); ++i) {
        if (remove(files[i].path.c_str()) != 0)
            __mv_log(MV_STK_LOG, LOG_CAT_CORE, MV_LOG_DEBUG, "Error deleting file %s: %s <core|%d>", files[i].path.c_str(),
                     strerror(errno), __LINE__);
    }
}
