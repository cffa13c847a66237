#include "usb/zelflshdev.h"

bool USBDEV::hasInterface(int i) const {
    return i >= 0 && i < numberOfInterfaces && i < max_interfaces;
}

int USBDEV::getUsagePage(int i) const {
    return i >= 0 && i < max_interfaces ? usagePage[i] : 0;
}

int USBDEV::getUsage(int i) const {
    return hasInterface(i) ? usage[i] : 0;
}

int USBDEV::getRole(int i) const {
    return hasInterface(i) ? role[i] : 0;
}

int USBDEV::getInterfaceNumber(int i) const {
    return hasInterface(i) ? interface_number[i] : -1;
}
