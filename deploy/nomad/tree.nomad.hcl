# The tree of docs/scale.md: a first proxy and two below it, each on a client of its own; docs/fleet.md walks through it.
#   nomad job run deploy/nomad/tree.nomad.hcl
# Needs the Docker driver and Consul, whose checks can run commands in a task. One allocation is one channel, number 1
# for the first proxy, 2 and up for those below.
job "tx-proxy" {
  datacenters = ["*"]
  type        = "service"

  # One allocation after the other, and the next only when this one has input again.
  update {
    max_parallel      = 1
    health_check      = "checks"
    min_healthy_time  = "10s"
    healthy_deadline  = "3m"
    progress_deadline = "10m"
  }

  group "root" {
    count = 1

    network {
      mode = "host"
      # Ports of the client: no two allocations with the same ones share one.
      port "input" {
        static = 5000
      }
      port "ping" {
        static = 10000
      }
      port "request" {
        static = 7020
      }
      port "metrics" {
        static = 8080
      }
    }

    task "proxy" {
      driver = "docker"

      config {
        image           = "registry.example/tx-proxy:1.0.0"
        network_mode    = "host"
        command         = "ordinal"
        args            = ["drain-first"]
        cap_drop        = ["all"]
        security_opt    = ["no-new-privileges"]
        readonly_rootfs = true
        volumes         = ["local/default:/etc/default:ro"]

        mount {
          type   = "tmpfs"
          target = "/run"
        }
      }

      env {
        CHANNEL_FIRST = "1"
      }

      template {
        destination = "local/default/tx_proxy-1"
        data        = <<EOF
TX_PROXY_OPTIONS="-q 4096 -p 10000 -r 7020"
TX_PROXY_LISTEN="5000"
EOF
      }

      # Nomad stops a task by a signal alone: drain-first tells the receivers, then ends the proxy.
      kill_signal  = "SIGTERM"
      kill_timeout = "20s"

      service {
        name         = "tx-proxy-root"
        provider     = "consul"
        port         = "ping"
        address_mode = "host"

        # The proxy answers and has input.
        check {
          name      = "ready"
          type      = "script"
          task      = "proxy"
          command   = "ordinal"
          args      = ["channel", "ready"]
          interval  = "5s"
          timeout   = "5s"
          on_update = "require_healthy"
        }

        # The proxy answers; without that for half a minute it is started again.
        check {
          name      = "live"
          type      = "script"
          task      = "proxy"
          command   = "ordinal"
          args      = ["channel", "live"]
          interval  = "10s"
          timeout   = "5s"
          on_update = "ignore"

          check_restart {
            limit = 3
            grace = "10s"
          }
        }
      }

      # 50 receivers at 8 Mbit/s: docs/fleet.md, "Sizing".
      resources {
        cpu    = 312
        memory = 64
      }
    }

    task "monitor" {
      driver = "docker"

      lifecycle {
        hook    = "poststart"
        sidecar = true
      }

      config {
        image           = "registry.example/tx-proxy:1.0.0"
        network_mode    = "host"
        pid_mode        = "host" # the proxy's control socket is reached through its process
        command         = "ordinal"
        args            = ["monitor"]
        cap_drop        = ["all"]
        security_opt    = ["no-new-privileges"]
        readonly_rootfs = true
        volumes         = ["local/default:/etc/default:ro"]

        mount {
          type   = "tmpfs"
          target = "/run"
        }
      }

      env {
        CHANNEL_FIRST  = "1"
        MONITOR_LISTEN = "${NOMAD_ADDR_metrics}"
      }

      template {
        destination = "local/default/tx_proxy-1"
        data        = <<EOF
TX_PROXY_OPTIONS="-q 4096 -p 10000 -r 7020"
TX_PROXY_LISTEN="5000"
EOF
      }

      service {
        name     = "tx-proxy-metrics"
        provider = "consul"
        port     = "metrics"

        check {
          type     = "http"
          path     = "/metrics"
          interval = "10s"
          timeout  = "3s"
        }
      }

      resources {
        cpu    = 52
        memory = 64
      }
    }
  }

  group "leaf" {
    count = 2

    network {
      mode = "host"
      # Ports of the client: no two allocations with the same ones share one.
      port "input" {
        static = 5000
      }
      port "ping" {
        static = 10000
      }
      port "request" {
        static = 7020
      }
      port "metrics" {
        static = 8080
      }
    }

    task "proxy" {
      driver = "docker"

      config {
        image           = "registry.example/tx-proxy:1.0.0"
        network_mode    = "host"
        command         = "ordinal"
        args            = ["drain-first"]
        cap_drop        = ["all"]
        security_opt    = ["no-new-privileges"]
        readonly_rootfs = true
        volumes         = ["local/default:/etc/default:ro"]

        mount {
          type   = "tmpfs"
          target = "/run"
        }
      }

      env {
        CHANNEL_FIRST = "2"
      }

      template {
        destination = "local/default/tx_proxy-2"
        data        = <<EOF
TX_PROXY_OPTIONS="-q 4096 -p 10000 -r 7020"
TX_PROXY_LISTEN="5000"
EOF
      }

      template {
        destination = "local/default/tx_proxy-3"
        data        = <<EOF
TX_PROXY_OPTIONS="-q 4096 -p 10000 -r 7020"
TX_PROXY_LISTEN="5000"
EOF
      }

      # Nomad stops a task by a signal alone: drain-first tells the receivers, then ends the proxy.
      kill_signal  = "SIGTERM"
      kill_timeout = "20s"

      service {
        name         = "tx-proxy-leaf"
        provider     = "consul"
        port         = "ping"
        address_mode = "host"

        # The proxy answers and has input.
        check {
          name      = "ready"
          type      = "script"
          task      = "proxy"
          command   = "ordinal"
          args      = ["channel", "ready"]
          interval  = "5s"
          timeout   = "5s"
          on_update = "require_healthy"
        }

        # The proxy answers; without that for half a minute it is started again.
        check {
          name      = "live"
          type      = "script"
          task      = "proxy"
          command   = "ordinal"
          args      = ["channel", "live"]
          interval  = "10s"
          timeout   = "5s"
          on_update = "ignore"

          check_restart {
            limit = 3
            grace = "10s"
          }
        }
      }

      # 50 receivers at 8 Mbit/s: docs/fleet.md, "Sizing".
      resources {
        cpu    = 312
        memory = 64
      }
    }

    task "relay" {
      driver = "docker"

      lifecycle {
        hook    = "poststart"
        sidecar = true
      }

      config {
        image           = "registry.example/tx-proxy:1.0.0"
        network_mode    = "host"
        command         = "ordinal"
        args            = ["relay"]
        cap_drop        = ["all"]
        security_opt    = ["no-new-privileges"]
        readonly_rootfs = true
        volumes         = ["local/default:/etc/default:ro"]
      }

      env {
        CHANNEL_FIRST = "2"
      }

      template {
        destination = "local/default/tx_proxy-2"
        data        = <<EOF
TX_PROXY_OPTIONS="-q 4096 -p 10000 -r 7020"
TX_PROXY_LISTEN="5000"
EOF
      }

      template {
        destination = "local/default/tx_proxy-3"
        data        = <<EOF
TX_PROXY_OPTIONS="-q 4096 -p 10000 -r 7020"
TX_PROXY_LISTEN="5000"
EOF
      }

      template {
        destination = "local/default/arqrx-2"
        data        = <<EOF
ARQRX_OPTIONS="tx-proxy-root.service.consul:10000 --request-port 7020 --latency 600ms --output rtp://127.0.0.1:5000 --interval 1min"
EOF
      }

      template {
        destination = "local/default/arqrx-3"
        data        = <<EOF
ARQRX_OPTIONS="tx-proxy-root.service.consul:10000 --request-port 7020 --latency 600ms --output rtp://127.0.0.1:5000 --interval 1min"
EOF
      }

      resources {
        cpu    = 260
        memory = 160
      }
    }

    task "monitor" {
      driver = "docker"

      lifecycle {
        hook    = "poststart"
        sidecar = true
      }

      config {
        image           = "registry.example/tx-proxy:1.0.0"
        network_mode    = "host"
        pid_mode        = "host" # the proxy's control socket is reached through its process
        command         = "ordinal"
        args            = ["monitor"]
        cap_drop        = ["all"]
        security_opt    = ["no-new-privileges"]
        readonly_rootfs = true
        volumes         = ["local/default:/etc/default:ro"]

        mount {
          type   = "tmpfs"
          target = "/run"
        }
      }

      env {
        CHANNEL_FIRST  = "2"
        MONITOR_LISTEN = "${NOMAD_ADDR_metrics}"
      }

      template {
        destination = "local/default/tx_proxy-2"
        data        = <<EOF
TX_PROXY_OPTIONS="-q 4096 -p 10000 -r 7020"
TX_PROXY_LISTEN="5000"
EOF
      }

      template {
        destination = "local/default/tx_proxy-3"
        data        = <<EOF
TX_PROXY_OPTIONS="-q 4096 -p 10000 -r 7020"
TX_PROXY_LISTEN="5000"
EOF
      }

      service {
        name     = "tx-proxy-metrics"
        provider = "consul"
        port     = "metrics"

        check {
          type     = "http"
          path     = "/metrics"
          interval = "10s"
          timeout  = "3s"
        }
      }

      resources {
        cpu    = 52
        memory = 64
      }
    }
  }
}
