// PRA, hub and NFT packets. Written with the tracking path.
#include "access/State.hpp"

void OrvAccess::processPraPkt(const unsigned char* /*packet*/) {}
void OrvAccess::processHubDataPkt(const unsigned char* /*packet*/) {}
void OrvAccess::processHubErrPkt(const unsigned char* /*packet*/) {}
void OrvAccess::processNftDataPkt(const unsigned char* /*packet*/) {}

bool OrvAccess::getFeatureData(bool* valid, s_FeatData* data) {
    return popRecord(st_->features, valid, data);
}

bool OrvAccess::getHubData(bool* valid, s_OrvAccessHubData* data) {
    return popRecord(st_->hubData, valid, data);
}
