#include "json2c/json_fields.h"

#include "common/text_field.h"

#include <cstring>

bool json_int_value(const cJSON *item, int *value)
{
    if (cJSON_IsNumber(item)) {
        *value = item->valueint;
        return true;
    }
    if (cJSON_IsTrue(item)) {
        *value = 1;
        return true;
    }
    return false;
}

namespace {

int refuse_type(const JsonField &f, const cJSON *item, const LogSite &site)
{
    log_error_at(site, "%s is empty or error value type : %d\n", f.name, item ? item->type : -1);
    return -2;
}

bool accepted_text(const JsonField &f, const char *text)
{
    for (const char *const *a = f.accepted; *a; ++a)
        if (strcmp(*a, text) == 0)
            return true;
    return false;
}

} // namespace

int json_read_fields(const cJSON *object, const JsonField *fields, size_t count, const LogSite &site)
{
    for (size_t i = 0; i < count; ++i) {
        const JsonField &f = fields[i];
        const cJSON *item = cJSON_GetObjectItemCaseSensitive(object, f.name);
        if (f.kind == JsonField::Int) {
            int value;
            if (!json_int_value(item, &value))
                return refuse_type(f, item, site);
            unsigned u = static_cast<unsigned>(value);
            if (f.ranged && (u < f.min || u > f.max)) {
                log_error_at(site, "%s", f.refusal);
                return -2;
            }
            *static_cast<int *>(f.out) = value;
            continue;
        }
        if (!cJSON_IsString(item) || !item->valuestring || (!f.allow_empty && item->valuestring[0] == '\0'))
            return refuse_type(f, item, site);
        if (f.accepted && !accepted_text(f, item->valuestring)) {
            log_error_at(site, "%s", f.refusal);
            return -2;
        }
        copy_field(static_cast<char *>(f.out), f.size, item->valuestring);
    }
    return 0;
}

int json_parse_text(const char *text, CJsonPtr *tree, const LogSite &site)
{
    tree->reset(cJSON_Parse(text));
    if (!*tree) {
        log_error_at(site, "json pack into cjson error...\n");
        return -15;
    }
    return 0;
}

int json_parse_fields(const char *text, const JsonField *fields, size_t count, const LogSite &site, CJsonPtr *tree)
{
    CJsonPtr local;
    CJsonPtr *root = tree ? tree : &local;
    int rc = json_parse_text(text, root, site);
    return rc != 0 ? rc : json_read_fields(root->get(), fields, count, site);
}
