// The names of web categories on a plain Linux machine, by their ids. A device has its vendor's.
#include "platform/psm.h"

// The first byte of a row is not part of the name.
const char g_cat_map[84][66] = {
    " Uncategorized",
    " Adult content",
    " Nudity",
    " Dating", // 0
    " Swimwear",
    " Sex education",
    " Gambling",
    " Lotteries", // 4
    " Alcohol",
    " Tobacco",
    " Cannabis",
    " Illegal drugs", // 8
    " Weapons",
    " Violence",
    " Hate speech",
    " Self-harm", // 12
    " Cults",
    " Crime",
    " Fraud",
    " Cheating", // 16
    " Questionable",
    " Malware",
    " Phishing",
    " Botnets", // 20
    " Spyware",
    " Spam",
    " Hacking",
    " Proxies and VPNs", // 24
    " Parked domains",
    " New domains",
    " Unresponsive",
    " Private addresses", // 28
    " Search engines",
    " Portals",
    " News",
    " Weather", // 32
    " Reference",
    " Translation",
    " Education",
    " Training", // 36
    " Science",
    " Libraries",
    " Kids",
    " Games", // 40
    " Music",
    " Video streaming",
    " Radio and podcasts",
    " Photos", // 44
    " Humor",
    " Arts",
    " Books",
    " Celebrities", // 48
    " Sports",
    " Hunting and fishing",
    " Travel",
    " Food and drink", // 52
    " Home and garden",
    " Cars",
    " Real estate",
    " Fashion", // 56
    " Shopping",
    " Auctions",
    " Coupons",
    " Banking", // 60
    " Investing",
    " Insurance",
    " Cryptocurrency",
    " Jobs", // 64
    " Business",
    " Advertising",
    " Tracking",
    " Content delivery", // 68
    " Hosting",
    " Software",
    " File sharing",
    " Cloud storage", // 72
    " Email",
    " Chat",
    " Social networks",
    " Forums", // 76
    " Blogs",
    " Health",
    " Religion",
    " Government", // 80
};
