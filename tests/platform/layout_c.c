/* Every C header of the platform, compiled as C. */
#include "layout_c.h"

#include <klib/klib.h>
#include <orba_host_errors.h>
#include <orbatovra/orbatovra.h>
#include <orbaudc/orbaudc.h>
#include <string.h>

void fillRecords(TovraAccountRecord* account, TovraServerConfigRecord* config,
                 TovraHttpsRequestRecord* request, TovraHttpsResponseRecord* response) {
    memset(account, 0, sizeof(*account));
    memset(config, 0, sizeof(*config));
    memset(request, 0, sizeof(*request));
    memset(response, 0, sizeof(*response));
    strcpy(account->id, "id");
    strcpy(account->authKey, "key");
    strcpy(config->server, "server");
    request->server = config->server;
    request->path = account->id;
    request->parameters = (KLIBCSzHash*)request;
    request->option0 = 10;
    request->option1 = 11;
    response->body = account->authKey;
}
