#include "support/Samples.h"

namespace vlmBench {

Position fullPosition() {
    using namespace qdr::services::gnss::datatypes;
    Position p;
    p.type = PositionType::fused;
    p.messageCounter = 481516;
    p.preciseLocalTimeSeconds = 1773237909;
    p.preciseLocalTimeNanoseconds = 482103551;
    p.latency = 12.625;
    p.latitude = 48.1371548;
    p.longitude = 11.5753822;
    p.altitudeMeanSeaLevel = 519.34;
    p.altitudeWGS84 = 565.81;
    p.yawAngle = 271.4375;
    p.speed2D = 27.918;
    p.speed3D = 27.9213;
    p.velocityNorthDirection = 0.70031;
    p.velocityEastDirection = -27.9092;
    p.velocityUpwardDirection = 0.4291;
    p.accuracyHorizontal = 1.25;
    p.accuracyVertical = 2.125;
    p.accuracySpeed2D = 0.0625;
    p.accuracySpeed3D = 0.0718;
    p.accuracyYawAngle = 0.3125;
    for (auto* state :
         {&p.preciseLocalTimeSecondsValueType, &p.preciseLocalTimeNanosecondsValueType, &p.latencyValueType,
          &p.latitudeValueType, &p.longitudeValueType, &p.altitudeMeanSeaLevelValueType,
          &p.altitudeWGS84ValueType, &p.yawAngleValueType, &p.speed2DValueType, &p.speed3DValueType,
          &p.velocityNorthDirectionValueType, &p.velocityEastDirectionValueType,
          &p.velocityUpwardDirectionValueType, &p.accuracyHorizontalValueType, &p.accuracyVerticalValueType,
          &p.accuracySpeed2DValueType, &p.accuracySpeed3DValueType, &p.accuracyYawAngleValueType}) {
        *state = ValueType::valid;
    }
    return p;
}

AirbagNotification airbagNotification() {
    AirbagNotification notification;
    notification.type = static_cast<qdr::services::airbag::datatypes::AirbagNotification>(1);
    return notification;
}

Consumption consumption() {
    using namespace qdr::services::routebasedconsumption::datatypes;
    Consumption point;
    point.elementId = ConsumptionElement::learntPoint1;
    point.consumptionPhysicalValue = 17.3125F;
    point.consumptionValueType = ValueType::valid;
    point.learningProgressPhysicalValue = 62.5F;
    point.learningProgressValueType = ValueType::valid;
    return point;
}

}  // namespace vlmBench
