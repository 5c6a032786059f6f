#include "webserver/routing_table.h"

#include "common/log.h"
#include "common/owners.h"
#include "common/text_field.h"

#include <cstdio>
#include <cstring>

http_protocol_receiver http_protocol_command[HTTP_PROTOCOL_MAX];

namespace {

// The reader's lines carry its public name, whichever helper writes them.
#define ROUTING_ERROR(...) log_error_line(__FILE__, __LINE__, "http_read_config_command", __VA_ARGS__)

// Lines shorter than this cannot hold a route and are skipped.
constexpr size_t kShortestLine = 3;

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

// Reads one line without its newline into line (room for HTTP_COMMAND_LINE_MAX characters).
// 1 with *len set, 0 at the end of the file, -1 when the line is longer than the limit.
int read_line(FILE *file, char (&line)[HTTP_COMMAND_LINE_MAX + 1], size_t *len)
{
    size_t n = 0;
    int c;
    while ((c = getc(file)) != EOF && c != '\n') {
        if (n == HTTP_COMMAND_LINE_MAX)
            return -1;
        line[n++] = static_cast<char>(c);
    }
    line[n] = '\0';
    *len = n;
    return (c == EOF && n == 0) ? 0 : 1;
}

// Splits line in place into its first three space-separated words; missing words are "".
void split_words(char *line, char *(&words)[3], char *empty)
{
    char *p = line;
    for (char *&word : words) {
        while (*p == ' ')
            ++p;
        if (*p == '\0') {
            word = empty;
            continue;
        }
        word = p;
        while (*p != '\0' && *p != ' ')
            ++p;
        if (*p != '\0')
            *p++ = '\0';
    }
}

// A cut command name or address would route to the wrong application unnoticed, so a word
// longer than its field refuses the file.
bool word_fits(const char *path, int line_no, const char *what, const char *word, size_t size)
{
    if (strlen(word) < size)
        return true;
    ROUTING_ERROR("%s line %d: %s longer than %zu characters\n", path, line_no, what, size - 1);
    return false;
}

int read_routing_lines(FILE *file, const char *path)
{
    char line[HTTP_COMMAND_LINE_MAX + 1];
    char previous[HTTP_RECEIVER_NAME_SIZE] = "";
    int sum = 0;
    int command_sum = 0;
    int line_no = 0;
    size_t len = 0;
    int got;
    while ((got = read_line(file, line, &len)) != 0) {
        ++line_no;
        if (got < 0) {
            ROUTING_ERROR("%s line %d longer than %zu characters\n", path, line_no, HTTP_COMMAND_LINE_MAX);
            return -1;
        }
        if (len < kShortestLine || line[0] == '#')
            continue;
        ROUTING_ERROR("###start  %s \n", line);  // contract: exact bytes

        char empty[3] = "";
        char *words[3];
        split_words(line, words, empty);

        // The receiver word is compared as split, before trimming: only a word identical to
        // the previous line's continues its block.
        bool same = strcmp(words[1], previous) == 0;
        if (!same && previous[0] != '\0') {
            if (++sum == HTTP_PROTOCOL_MAX) {
                ROUTING_ERROR("max protocol num %d \n", HTTP_PROTOCOL_MAX);
                return -1;
            }
            command_sum = 0;
        } else if (same && previous[0] != '\0') {
            if (++command_sum == HTTP_PROTOCOL_CMD_MAX) {
                ROUTING_ERROR("max protocol num %d \n", HTTP_PROTOCOL_CMD_MAX);
                return -1;
            }
        } else {
            command_sum = 0;
        }

        char *command = http_strim(words[0]);
        char *receiver = http_strim(words[1]);
        char *target = http_strim(words[2]);
        bool is_url = http_is_ipc_url(target);
        if (!word_fits(path, line_no, "command name", command, HTTP_COMMAND_NAME_SIZE) ||
            !word_fits(path, line_no, "receiver name", receiver, HTTP_RECEIVER_NAME_SIZE) ||
            !word_fits(path, line_no, is_url ? "address" : "capability path", target,
                       is_url ? HTTP_IPC_URL_SIZE : HTTP_CAP_PATH_SIZE))
            return -1;

        http_protocol_receiver &entry = http_protocol_command[sum];
        copy_field(entry.command[command_sum], HTTP_COMMAND_NAME_SIZE, command);
        copy_field(entry.receiver_name, HTTP_RECEIVER_NAME_SIZE, receiver);
        if (is_url)
            copy_field(entry.ipc_url, HTTP_IPC_URL_SIZE, target);
        else
            copy_field(entry.cap_path[command_sum], HTTP_CAP_PATH_SIZE, target);
        copy_field(previous, sizeof previous, receiver);

        HTTP_DEBUG("command %s \n", entry.command[command_sum]);
        HTTP_DEBUG("receiver_name %s \n", entry.receiver_name);
        HTTP_DEBUG("sum=%d command_sum=%d\n", sum, command_sum);
        HTTP_DEBUG("ipc_url %s\n", entry.ipc_url);
        HTTP_DEBUG("cap_path %s\n", entry.cap_path[command_sum]);
        ROUTING_ERROR("###end  %s \n", command);
    }
    return 0;
}

} // namespace

char *http_strim(char *text)
{
    while (is_blank(*text))
        ++text;
    size_t n = strlen(text);
    while (n > 0 && is_blank(text[n - 1]))
        --n;
    text[n] = '\0';
    return text;
}

bool http_is_ipc_url(const char *url)
{
    return strncmp(url, "ipc", 3) == 0;
}

int http_read_routing_file(const char *path)
{
    // The table always mirrors the file: a re-read starts clean, a refused file leaves it empty.
    memset(http_protocol_command, 0, sizeof http_protocol_command);
    FilePtr file(fopen(path, "re"));
    if (!file) {
        ROUTING_ERROR(" open file[%s] failed!\n", path);
        return -7;
    }
    int rc = read_routing_lines(file.get(), path);
    if (rc != 0)
        memset(http_protocol_command, 0, sizeof http_protocol_command);
    return rc;
}

int http_read_config_command()
{
    return http_read_routing_file(HTTP_COMMAND_FILE);
}
