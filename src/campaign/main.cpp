#include "campaign/campaign.h"

[[gnu::used, gnu::retain]] static const char kIdentification[] = "@(#)qvexfat-campaign " QVEXFAT_VERSION;

int main(int argc, char* argv[]) { return RunCampaign(argc, argv); }
