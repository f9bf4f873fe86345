// Encodes a GOOSE message and decodes it again, with the codecs alone.
#include <cstdio>

#include "goosestack/goose_pdu.h"

int main() {
  goosestack::GoosePduFields fields;
  fields.goCBRef = "IED1/LLN0$GO$g1";
  fields.stNum = 7;
  const auto payload = goosestack::GoosePdu::encode(fields);
  if (!payload) return 1;
  const auto pdu = goosestack::GoosePdu::parse(*payload);
  if (!pdu) return 1;
  std::printf("%s stNum %u\n", pdu->goCBRef.c_str(), pdu->stNum);
  return pdu->goCBRef == fields.goCBRef && pdu->stNum == fields.stNum ? 0 : 1;
}
