#include "picture/sheet.h"

namespace picture {

double x_of(Lane lane) {
  switch (lane) {
    case Lane::kBoard:
      return kBoardX;
    case Lane::kStation:
      return kStationX;
    case Lane::kUnit:
      return kUnitX;
    case Lane::kPptServer:
      break;
  }
  return kPptServerX;
}

}  // namespace picture
