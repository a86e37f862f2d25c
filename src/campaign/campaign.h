#pragma once

// qvexfat-campaign: the command line in, the exit status out.
int RunCampaign(int argc, char* argv[]);
